// formatSink.cpp -- the rare ways of a sink: starting, growing, dropping, failing.
//
// Tests: tests/unit/format_test.cpp, fuzz/format_fuzz.cpp

#include "lib/string/formatSink.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kHeapStep = 64;

}  // namespace

FormatSink::FormatSink(const char *format) noexcept
    : begin_(nullptr), next_(nullptr), end_(nullptr), growing_(true), hasTerminator_(false) {
  const size_t length = strlen(format);
  const size_t capacity = length == 0 ? 1 : (length + kHeapStep) / kHeapStep * kHeapStep;
  heap_.reset(static_cast<char *>(malloc(capacity)));
  if (!heap_) {
    Fail();
    return;
  }
  begin_ = next_ = heap_.get();
  SetCapacity(capacity);
  hasTerminator_ = true;
}

// Without room nothing more is written.
void FormatSink::Fail() noexcept {
  failed_ = true;
  end_ = next_;
}

void FormatSink::SetCapacity(size_t capacity) noexcept {
  capacity_ = capacity;
  end_ = begin_ + std::min(capacity - 1, kMaxCount);
}

// For `n` bytes that do not fit: enlarges a heap buffer.  The new capacity is a multiple of the old
// one that holds what is there, what comes and a NUL.
bool FormatSink::Grow(size_t n) noexcept {
  const size_t used = Count();
  if (!failed_ && n > kMaxCount - used) {
    errno = EOVERFLOW;
    Fail();
  }
  if (failed_ || !growing_) return false;
  const size_t capacity = (used + n + capacity_) / capacity_ * capacity_;
  char *const grown = static_cast<char *>(realloc(begin_, capacity));
  if (grown == nullptr) {
    Fail();
    return false;
  }
  static_cast<void>(heap_.release());
  heap_.reset(grown);
  begin_ = grown;
  next_ = grown + used;
  SetCapacity(capacity);
  return true;
}

// How many of the next `n` bytes can be kept; the others count as dropped.
size_t FormatSink::CutToRoom(size_t n) noexcept {
  const size_t kept = MakeRoom(n) ? n : Room();
  dropped_ += n - kept;
  return kept;
}

void FormatSink::WriteLong(const char *bytes, size_t n) noexcept {
  const size_t kept = CutToRoom(n);
  memcpy(next_, bytes, kept);
  next_ += kept;
}

void FormatSink::FillLong(char c, size_t n) noexcept {
  const size_t kept = CutToRoom(n);
  memset(next_, c, kept);
  next_ += kept;
}
