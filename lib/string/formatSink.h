// formatSink.h -- stage 4 of formatting: where the bytes go.
//
// A sink fills a buffer of the caller's or grows one of its own.  A fixed buffer is never overrun:
// what does not fit is dropped, but counted.  A failure -- no memory, a count above INT_MAX --
// sticks: later bytes are ignored and Finish returns -1, so that only loops need to look at Failed.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "heap.h"

class FormatSink {
  char *begin_;
  char *next_;
  char *end_;            // of the room for bytes; when hasTerminator_, a NUL fits behind them
  size_t capacity_ = 0;  // of the heap buffer
  size_t dropped_ = 0;   // bytes that a fixed buffer had no room for
  HeapStr heap_;
  bool growing_ = false;
  bool failed_ = false;
  bool hasTerminator_ = true;

 public:
  // Fills `buffer` of `size` bytes, the NUL included.
  FormatSink(char *buffer, size_t size) noexcept;

  // Grows a heap buffer, which starts with room for a text about as long as `format`.
  explicit FormatSink(const char *format) noexcept;

  FormatSink(const FormatSink &) = delete;
  FormatSink &operator=(const FormatSink &) = delete;

  bool Failed() const noexcept { return failed_; }
  void Fail() noexcept;

  // The bytes so far, dropped ones included.
  size_t Count() const noexcept { return static_cast<size_t>(next_ - begin_) + dropped_; }

  // Announces that `n` bytes follow: they are one unit for the buffer's growth.
  void Expect(size_t n) noexcept {
    if (n > Room()) [[unlikely]]
      Overflow(n);
  }

  void Write(const char *bytes, size_t n) noexcept {
    if (n > kShort || n > Room()) return WriteLong(bytes, n);
    CopyShort(next_, bytes, n);
    next_ += n;
  }

  void Fill(char c, size_t n) noexcept {
    if (n > Room()) [[unlikely]]
      return FillSlow(c, n);
    for (; n != 0; --n) *next_++ = c;
  }

  // Terminates the text.  Returns the count, or -1 after a failure.
  int Finish() noexcept;

  // The grown heap buffer; null after a failure.  The caller frees it.
  [[nodiscard]] char *Release() noexcept { return heap_.release(); }

 private:
  static constexpr size_t kShort = 16;

  size_t Room() const noexcept { return static_cast<size_t>(end_ - next_); }
  void SetCapacity(size_t capacity) noexcept;
  bool Overflow(size_t n) noexcept;
  bool Grow(size_t n) noexcept;
  void WriteLong(const char *bytes, size_t n) noexcept;
  void FillSlow(char c, size_t n) noexcept;

  // memcpy without the call, for the few bytes that most pieces have: kShort at most.
  static void CopyShort(char *to, const char *from, size_t n) noexcept {
    if (n >= 8) {
      CopyEnds<uint64_t>(to, from, n);
    } else if (n >= 4) {
      CopyEnds<uint32_t>(to, from, n);
    } else if (n >= 2) {
      CopyEnds<uint16_t>(to, from, n);
    } else if (n == 1) {
      *to = *from;
    }
  }

  // Between one and two words: the first and the last, which may overlap.
  template <typename Word>
  static void CopyEnds(char *to, const char *from, size_t n) noexcept {
    Word first;
    Word last;
    memcpy(&first, from, sizeof first);
    memcpy(&last, from + n - sizeof last, sizeof last);
    memcpy(to, &first, sizeof first);
    memcpy(to + n - sizeof last, &last, sizeof last);
  }
};
