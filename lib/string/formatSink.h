// formatSink.h -- stage 4 of formatting: where the bytes go.
//
// A sink fills a buffer of the caller's or grows one of its own.  A fixed buffer is never overrun:
// what does not fit is dropped, but counted.  A failure -- no memory, a count above INT_MAX --
// sticks: later bytes are ignored and Finish returns -1, so that only loops need to look at Failed.
#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>

#include "lib/public/heap.h"
#include "lib/string/formatBytes.h"

class FormatSink {
  static constexpr size_t kMaxCount = INT_MAX;

  char *begin_;
  char *next_;
  char *end_;            // of the room for bytes; when hasTerminator_, a NUL fits behind them
  size_t capacity_ = 0;  // of the heap buffer
  size_t dropped_ = 0;   // bytes that a fixed buffer had no room for
  HeapStr heap_;
  bool growing_ = false;
  bool failed_ = false;
  bool hasTerminator_;  // a NUL fits behind the room

 public:
  // Fills `buffer` of `size` bytes, the NUL included.
  FormatSink(char *buffer, size_t size) noexcept
      : begin_(buffer),
        next_(buffer),
        end_(buffer + (size == 0 ? 0 : std::min(size - 1, kMaxCount))),
        hasTerminator_(size != 0) {}

  // Grows a heap buffer, which starts with room for a text about as long as `format`.
  explicit FormatSink(const char *format) noexcept;

  FormatSink(const FormatSink &) = delete;
  FormatSink &operator=(const FormatSink &) = delete;

  bool Failed() const noexcept { return failed_; }
  void Fail() noexcept;

  // The bytes so far, dropped ones included.
  size_t Count() const noexcept { return static_cast<size_t>(next_ - begin_) + dropped_; }

  // Makes room for `n` bytes at once, though they come in pieces.  True when all of them fit.
  bool MakeRoom(size_t n) noexcept { return n <= Room() || Grow(n); }

  // Takes `n` bytes, which the caller writes at once; null when they do not fit.
  char *Reserve(size_t n) noexcept {
    if (!MakeRoom(n)) [[unlikely]]
      return nullptr;
    char *const at = next_;
    next_ += n;
    return at;
  }

  void Write(const char *bytes, size_t n) noexcept {
    if (n > kFormatShort || n > Room()) return WriteLong(bytes, n);
    next_ = FormatCopy(next_, bytes, n);
  }

  void Fill(char c, size_t n) noexcept {
    if (n == 0) return;
    if (n > kFormatShort || n > Room()) return FillLong(c, n);
    next_ = FormatFill(next_, c, n);
  }

  // Terminates the text.  Returns the count, or -1 after a failure.
  int Finish() noexcept {
    if (hasTerminator_) *next_ = '\0';
    return failed_ ? -1 : static_cast<int>(Count());
  }

  // The heap buffer.  The caller frees it.
  [[nodiscard]] char *Release() noexcept { return heap_.release(); }

 private:
  size_t Room() const noexcept { return static_cast<size_t>(end_ - next_); }
  void SetCapacity(size_t capacity) noexcept;
  bool Grow(size_t n) noexcept;
  size_t CutToRoom(size_t n) noexcept;
  void WriteLong(const char *bytes, size_t n) noexcept;
  void FillLong(char c, size_t n) noexcept;
};
