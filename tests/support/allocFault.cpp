#include "tests/support/allocFault.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace {

bool MustFail(size_t size) {
  if (size <= PTRDIFF_MAX && AllocFault::left.fetch_sub(1) != 1) return false;
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *block, size_t size);

void *__wrap_malloc(size_t size) {
  return MustFail(size) ? nullptr : __real_malloc(size);
}

void *__wrap_calloc(size_t count, size_t size) {
  const bool isHuge = size != 0 && count > PTRDIFF_MAX / size;
  return MustFail(isHuge ? SIZE_MAX : count * size) ? nullptr : __real_calloc(count, size);
}

void *__wrap_realloc(void *block, size_t size) {
  return MustFail(size) ? nullptr : __real_realloc(block, size);
}
}

// Here, so that a test which makes one links this file.
AllocFault::AllocFault(int nth) {
  left = nth;
}
