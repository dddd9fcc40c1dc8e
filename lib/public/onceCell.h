// onceCell.h -- a process-wide value that is computed at its first use, without a lock.
//
// Threads that meet at the first use may compute it more than once; the first to install its result
// wins, and all of them get that one.  The value is never freed.
#pragma once

#include <atomic>
#include <type_traits>

#include "lib/public/heap.h"
#include "lib/public/onceSlot.h"

template <typename T>
class OnceCell {
  static_assert(std::is_trivially_copyable_v<T>);
  std::atomic<const T *> value_ = nullptr;

 public:
  const T &Get(T (*compute)()) {
    const T *value = value_.load(std::memory_order_acquire);
    if (value != nullptr) return *value;
    return *OnceSlot_Install(&value_, Heap_New<T>(compute()));
  }
};
