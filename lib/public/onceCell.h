// onceCell.h -- a process-wide value that is computed at its first use, without a lock.
//
// Threads that meet at the first use may compute it more than once; the first to install its result
// wins, and all of them get that one.  The value is never freed.
#pragma once

#include <atomic>
#include <memory>
#include <new>
#include <type_traits>

#include "lib/public/heap.h"

template <typename T>
class OnceCell {
  static_assert(std::is_trivially_copyable_v<T>);
  std::atomic<const T *> value_ = nullptr;

 public:
  const T &Get(T (*compute)()) {
    const T *value = value_.load(std::memory_order_acquire);
    if (value != nullptr) return *value;
    std::unique_ptr<T, HeapFreer> mine(new (Heap_SafeMalloc(sizeof(T))) T(compute()));
    if (value_.compare_exchange_strong(value, mine.get(), std::memory_order_acq_rel,
                                       std::memory_order_acquire)) {
      return *mine.release();
    }
    return *value;
  }
};
