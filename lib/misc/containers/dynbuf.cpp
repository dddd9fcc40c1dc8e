// dynbuf.cpp -- a byte buffer that grows as bytes are appended.
//
// Invariants: size <= allocated, and allocated is 0 when data is null; but a detached buffer keeps its
// size.
//
// Tests: tests/unit/containers_test.cpp

#include "lib/public/dynbuf.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "lib/public/heap.h"

namespace {

constexpr size_t kFirstBlock = 128;
constexpr size_t kLargestStep = 0x40000;

// What a block of `allocated` bytes grows to when nobody asks for more; wraps near SIZE_MAX.
size_t NextAllocation(size_t allocated) {
  if (allocated == 0) return kFirstBlock;
  return allocated + std::min(allocated, kLargestStep);
}

// Gives the buffer a block of exactly newSize bytes, not 0.
bool Reallocate(DynBuf *buf, size_t newSize) {
  void *const data = realloc(buf->data, newSize);
  if (data == nullptr) return false;
  buf->data = static_cast<char *>(data);
  buf->allocated = newSize;
  return true;
}

}  // namespace

void DynBuf_Init(DynBuf *buf) {
  *buf = DynBuf{};
}

void DynBuf_InitWithMemory(DynBuf *buf, size_t allocated, void *data) {
  *buf = DynBuf{.data = static_cast<char *>(data), .size = 0, .allocated = allocated};
}

void DynBuf_InitWithString(DynBuf *buf, char *string) {
  const size_t length = strlen(string);
  *buf = DynBuf{.data = string, .size = length, .allocated = length + 1};
}

void DynBuf_Destroy(DynBuf *buf) {
  HeapStr(buf->data).reset();
  DynBuf_Init(buf);
}

void DynBuf_Attach(DynBuf *buf, size_t size, void *data) {
  HeapStr(buf->data).reset();
  *buf = DynBuf{.data = static_cast<char *>(data), .size = size, .allocated = size};
}

char *DynBuf_Detach(DynBuf *buf) {
  buf->allocated = 0;
  return std::exchange(buf->data, nullptr);
}

bool DynBuf_Enlarge(DynBuf *buf, size_t minSize) {
  const size_t newSize = std::max(minSize, NextAllocation(buf->allocated));
  if (newSize < buf->allocated) {
    errno = ENOMEM;
    return false;
  }
  return Reallocate(buf, newSize);
}

bool DynBuf_Append(DynBuf *buf, const void *bytes, size_t length) {
  if (length == 0) return true;
  if (length > SIZE_MAX - buf->size) {
    errno = ENOMEM;
    return false;
  }
  const size_t newSize = buf->size + length;
  if (newSize > buf->allocated && !DynBuf_Enlarge(buf, newSize)) return false;
  memcpy(buf->data + buf->size, bytes, length);
  buf->size = newSize;
  return true;
}

bool DynBuf_Trim(DynBuf *buf) {
  if (buf->size > 0) return Reallocate(buf, buf->size);
  // The hosts differ in what realloc to nothing returns.
  DynBuf_Destroy(buf);
  return true;
}

bool DynBuf_Copy(const DynBuf *src, DynBuf *dest) {
  DynBuf copy = {};
  if (src->allocated > 0) {
    if (!Reallocate(&copy, src->allocated)) return false;
    memcpy(copy.data, src->data, src->size);
    copy.size = src->size;
  }
  *dest = copy;
  return true;
}

void DynBuf_SafeEnlarge(DynBuf *buf, size_t minSize, const char *source, unsigned line) {
  if (!DynBuf_Enlarge(buf, minSize)) Fatal_MemAlloc(source, line);
}

void DynBuf_SafeAppend(DynBuf *buf, const void *bytes, size_t length, const char *source,
                       unsigned line) {
  if (!DynBuf_Append(buf, bytes, length)) Fatal_MemAlloc(source, line);
}
