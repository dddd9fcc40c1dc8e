// formatBind.h -- stage 2 of formatting: which argument each conversion, width and precision gets.
//
// Arguments come straight from the argument list, one after the other, until a format names a
// position.  Then the whole format is read once to learn the type at every position -- an argument
// list can only be walked from its start, knowing each type -- and from there on all arguments come
// from the table of fetched values.  A conversion without a position takes the one behind the last.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <span>

#include "bsd_vsnprintf.h"
#include "formatGrammar.h"
#include "heap.h"

// How an argument is passed.
enum class FormatArgType : uint32_t { None, Int, Int64, Pointer, Double, LongDouble };

// A conversion with its numbers resolved.
struct FormatField {
  FormatKind kind;
  FormatSize size;
  uint8_t flags;
  char character;
  int width;
  int precision;  // negative when there is none

  bool Has(FormatFlag flag) const { return (flags & flag) != 0; }
  bool IsWide() const { return FormatSize_IsWide(size); }
};

// The positions that arguments without one of their own take.
class FormatTurn {
  size_t next_ = 1;

 public:
  // A position at a `*` leaves the turn alone.
  size_t OfCount(int position) { return position != 0 ? static_cast<size_t>(position) : next_++; }
  size_t OfValue(int position) {
    if (position != 0) next_ = static_cast<size_t>(position);
    return next_++;
  }
};

// An argument list that keeps its place when it is handed on by reference.
struct FormatArgList {
  va_list list;
};

class FormatBinder {
  const char *format_ = nullptr;  // null when the values were there from the start
  FormatArgList first_;           // where the arguments begin
  FormatArgList next_;            // where they go on
  FormatTurn turn_;
  bool positional_ = false;
  std::span<const FormatValue> values_;  // values_[0] is position 1
  FormatValue inFrame_[8];
  HeapArray<FormatValue> inHeap_;

 public:
  FormatBinder(const char *format, va_list args);
  explicit FormatBinder(std::span<const FormatValue> values);
  ~FormatBinder();
  FormatBinder(const FormatBinder &) = delete;
  FormatBinder &operator=(const FormatBinder &) = delete;

  // Resolves `conversion`, of any kind but End, and fetches its argument, if it has one.  False
  // when memory runs out or the argument does not exist.
  [[nodiscard]] bool Bind(const FormatConversion &conversion, FormatField *field,
                          FormatValue *value);

 private:
  bool SwitchToPositions();
  bool Fetch(FormatArgType type, size_t position, FormatValue *value);
  bool FetchCount(const FormatCount &count, int absent, int *number);
};
