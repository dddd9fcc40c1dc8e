#include "tests/support/allocFault.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace {

std::atomic<int> untilFault{0};
std::atomic<size_t> lastSize{0};

bool MustFail(size_t size) {
  lastSize = size;
  if (size <= PTRDIFF_MAX && untilFault.fetch_sub(1) != 1) return false;
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__real_realloc(void *block, size_t size);

void *__wrap_malloc(size_t size);
void *__wrap_malloc(size_t size) {
  return MustFail(size) ? nullptr : __real_malloc(size);
}

void *__wrap_realloc(void *block, size_t size);
void *__wrap_realloc(void *block, size_t size) {
  return MustFail(size) ? nullptr : __real_realloc(block, size);
}
}

AllocFault::AllocFault(int nth) {
  untilFault = nth;
}
AllocFault::~AllocFault() {
  untilFault = 0;
}
bool AllocFault::Fired() const {
  return untilFault <= 0;
}
size_t AllocFault::LastSize() {
  return lastSize;
}
