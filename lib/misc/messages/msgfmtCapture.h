// msgfmtCapture.h -- the records of a capture while they are being made.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <span>
#include <type_traits>

#include "lib/public/heap.h"
#include "lib/public/msgfmt.h"
#include "lib/public/str.h"

// The type of a va_list as a parameter: on some hosts the list itself, on others a pointer to it.
using MsgFmtArgList = std::decay_t<va_list>;

// The caller's buffer, filled from its start.
class MsgFmtBuffer {
  char *begin_;
  char *at_;
  char *end_;

 public:
  MsgFmtBuffer(void *bytes, size_t size)
      : begin_(static_cast<char *>(bytes)), at_(begin_), end_(begin_ + size) {}

  size_t Used() const { return static_cast<size_t>(at_ - begin_); }

  // Uninitialised room for `count` objects; null when there is none.
  template <typename T>
  T *Allocate(size_t count) {
    const size_t gap = -reinterpret_cast<uintptr_t>(at_) & (alignof(T) - 1);
    const auto room = static_cast<size_t>(end_ - at_);
    if (gap > room || count > (room - gap) / sizeof(T)) return nullptr;
    char *const object = at_ + gap;
    at_ = object + count * sizeof(T);
    return reinterpret_cast<T *>(object);
  }

  void Clear() { at_ = begin_; }

  // Formats into the empty buffer, cut to its size; null when the size is 0.
  __attribute__((format(printf, 2, 0))) char *Format(const char *format, va_list args) {
    const auto size = static_cast<size_t>(end_ - begin_);
    if (size == 0) return nullptr;
    static_cast<void>(Str_Vsnprintf(begin_, size, format, args));
    at_ = begin_ + strlen(begin_) + 1;
    return begin_;
  }
};

// How many units of a string may be read.
class StringLimit {
  uint32_t units_ = UINT32_MAX;  // all of them

 public:
  StringLimit() = default;
  // As the precision of a conversion and of a record: a negative one is no limit.
  explicit StringLimit(int32_t precision)
      : units_(precision < 0 ? UINT32_MAX : static_cast<uint32_t>(precision)) {}

  int32_t AsPrecision() const { return static_cast<int32_t>(units_); }
  bool IsAll() const { return units_ == UINT32_MAX; }
  bool operator<(const StringLimit &other) const { return units_ < other.units_; }

  size_t LengthOf(const char *string) const {
    return IsAll() ? strlen(string) : Str_Strlen(string, units_);
  }
  size_t LengthOf(const wchar_t *string) const {
    return IsAll() ? wcslen(string) : wcsnlen(string, units_);
  }
};

// The records of one capture.  They are made in three steps: Cover and At, Fetch, CopyStrings.
class MsgFmtCapture {
  MsgFmtBuffer *const buffer_;  // null: blocks from malloc
  char **const error_;
  HeapArray<MsgFmt_Arg> inHeap_;
  MsgFmt_Arg *args_ = nullptr;
  size_t capacity_ = 0;
  size_t count_ = 0;
  size_t copied_ = 0;  // of so many records, the first ones, the strings are copies

 public:
  MsgFmtCapture(MsgFmtBuffer *buffer, char **error) : buffer_(buffer), error_(error) {
    if (error_ != nullptr) *error_ = nullptr;
  }
  MsgFmtCapture(const MsgFmtCapture &) = delete;
  MsgFmtCapture &operator=(const MsgFmtCapture &) = delete;
  ~MsgFmtCapture() { Drop(); }

  // Makes sure that there are records up to `position`; new ones are all zero.  False: out of memory.
  [[nodiscard]] bool Cover(size_t position);
  MsgFmt_Arg &At(size_t position) { return args_[position - 1]; }
  std::span<MsgFmt_Arg> Records() { return {args_, count_}; }

  [[nodiscard]] bool Fetch(MsgFmtArgList *list);
  [[nodiscard]] bool CopyStrings();

  // Frees the records and makes the text the error of the capture.  Always false.
  bool Fail(const char *format, ...) __attribute__((format(printf, 2, 3)));

  void HandOver(MsgFmt_Arg **args, int *numArgs);

 private:
  void Drop();
  [[nodiscard]] bool Grow(size_t position);
  [[nodiscard]] bool FetchOne(MsgFmtArgList *list, MsgFmt_Arg *arg);
  template <typename Unit>
  [[nodiscard]] bool CopyString(Unit **string, size_t length);
  [[nodiscard]] bool CopyStringOf(MsgFmt_Arg *arg);
};
