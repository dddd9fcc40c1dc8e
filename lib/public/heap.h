// heap.h -- memory from malloc with one owner, and the allocations whose failure is fatal.
//
// Strings leave a module as `char *` that the receiver frees with free(); inside, HeapStr and
// HeapArray own them.  errno survives the freeing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "lib/public/errnoKeeper.h"
#include "lib/public/fatal.h"

struct HeapFreer {
  void operator()(void *p) const noexcept {
    const ErrnoKeeper keeper;
    free(p);
  }
};

using HeapStr = std::unique_ptr<char, HeapFreer>;

// Ends an object of Heap_New: its destructor, then free().
struct HeapDeleter {
  template <typename T>
  void operator()(T *object) const noexcept {
    std::destroy_at(object);
    HeapFreer()(const_cast<std::remove_const_t<T> *>(object));
  }
};

template <typename T>
using HeapPtr = std::unique_ptr<T, HeapDeleter>;

// An array of plain records: nothing is constructed or destroyed.
template <typename T>
using HeapArray = std::unique_ptr<T[], HeapFreer>;

// Uninitialised room for `count` records; null with errno ENOMEM when there is none.
template <typename T>
[[nodiscard]] HeapArray<T> Heap_Array(size_t count) {
  static_assert(std::is_trivial_v<T>);
  if (count > SIZE_MAX / sizeof(T)) {
    errno = ENOMEM;
    return nullptr;
  }
  return HeapArray<T>(static_cast<T *>(malloc(count == 0 ? 1 : count * sizeof(T))));
}

// `size` bytes, uninitialised; never null.
[[nodiscard]] inline void *Heap_SafeMalloc(size_t size) {
  void *const p = malloc(size == 0 ? 1 : size);
  if (p == nullptr) Fatal_MemAlloc();
  return p;
}

// A new T, initialised as `T{args...}`; never null.  One that leaves its owner ends in HeapDeleter.
template <typename T, typename... Args>
[[nodiscard]] HeapPtr<T> Heap_New(Args &&...args) {
  void *room = nullptr;
  if constexpr (alignof(T) <= alignof(std::max_align_t)) {
    room = Heap_SafeMalloc(sizeof(T));
  } else if (posix_memalign(&room, alignof(T), sizeof(T)) != 0) {
    Fatal_MemAlloc();
  }
  return HeapPtr<T>(new (room) T{std::forward<Args>(args)...});
}

// A copy of `s` (not null); never null.
[[nodiscard]] inline HeapStr Heap_SafeStrdup(const char *s) {
  const size_t size = strlen(s) + 1;
  return HeapStr(static_cast<char *>(memcpy(Heap_SafeMalloc(size), s, size)));
}

// A string of the first `length` bytes of `s`, which has as many before its NUL; never null.
[[nodiscard]] inline HeapStr Heap_SafeStrndup(const char *s, size_t length) {
  char *const copy = static_cast<char *>(Heap_SafeMalloc(length + 1));
  memcpy(copy, s, length);
  copy[length] = '\0';
  return HeapStr(copy);
}
