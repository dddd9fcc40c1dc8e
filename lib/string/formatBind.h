// formatBind.h -- stage 2 of formatting: which argument each conversion, width and precision gets.
//
// Arguments come straight from the argument list, one after the other, until the format names a
// position.  Then the whole format is read once to learn the type at every position, since an argument
// list can only be walked from its start and knowing each type.  From there on all arguments come from
// the table of fetched values, and a conversion without a position takes the argument that follows the
// previous one.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <span>
#include <type_traits>

#include "lib/public/bsd_vsnprintf.h"
#include "lib/public/formatGrammar.h"
#include "lib/public/heap.h"

// How an argument is passed; None for a conversion without one.
enum class FormatArgType : uint32_t { None, Int, Int64, Pointer, Double, LongDouble };

inline FormatArgType FormatArgTypeOf(const FormatConversion &conversion) {
  const FormatSize size = conversion.size;
  switch (conversion.kind) {
    case FormatKind::String:
    case FormatKind::Pointer:
    case FormatKind::Count:
      return FormatArgType::Pointer;
    case FormatKind::Signed:
    case FormatKind::Unsigned:
    case FormatKind::Octal:
    case FormatKind::Hex:
      return size <= FormatSize::Short ? FormatArgType::Int : FormatArgType::Int64;
    case FormatKind::Char:
      return FormatArgType::Int;
    case FormatKind::Float:
    case FormatKind::HexFloat:
      return size == FormatSize::LongLong ? FormatArgType::LongDouble : FormatArgType::Double;
    default:
      return FormatArgType::None;
  }
}

// A va_list as a parameter is: on some hosts the list itself, on others a pointer to it.
using FormatArgList = std::decay_t<va_list>;

inline FormatValue FormatFetch(FormatArgList *args, FormatArgType type) {
  FormatValue value{};
  if (type == FormatArgType::Pointer) {
    value.pointer = va_arg(*args, const void *);
  } else if (type == FormatArgType::Int) {
    value.integer = va_arg(*args, int);
  } else if (type == FormatArgType::Int64) {
    value.integer = va_arg(*args, int64_t);
  } else if (type == FormatArgType::Double) {
    value.real = va_arg(*args, double);
  } else if (type == FormatArgType::LongDouble) {
    value.real = static_cast<double>(va_arg(*args, long double));
  }
  return value;
}

class FormatBinder {
  const char *format_;
  FormatArgList *next_ = nullptr;  // where the arguments go on; null when all values are there
  va_list first_;                  // where they began
  FormatTurn turn_;
  std::span<const FormatValue> values_;  // values_[0] is position 1
  FormatValue inFrame_[8];
  HeapArray<FormatValue> inHeap_;

 public:
  // Arguments from a list, which is consumed; the parameter outlives the binder.
  FormatBinder(const char *format, FormatArgList *args) : format_(format), next_(args) {
    va_copy(first_, *args);
  }
  explicit FormatBinder(std::span<const FormatValue> values) : format_(nullptr), values_(values) {}
  ~FormatBinder() {
    if (format_ != nullptr) va_end(first_);
  }
  FormatBinder(const FormatBinder &) = delete;
  FormatBinder &operator=(const FormatBinder &) = delete;

  // Fetches the argument of `conversion`, which is of any kind but End, if it takes one.  A width or precision
  // that is an argument becomes a literal, a negative width becomes the flag for left adjustment,
  // and a negative precision none.  False, with errno set, when memory runs out or the argument does
  // not exist.
  [[nodiscard]] bool Bind(FormatConversion *conversion, FormatValue *value) {
    const bool isPlain = (conversion->flags & (kFormatStar | kFormatPositions)) == 0;
    if (!isPlain || next_ == nullptr) return BindGeneral(conversion, value);
    turn_.PlacesOf(*conversion);  // positions may follow
    *value = FormatFetch(next_, FormatArgTypeOf(*conversion));
    return true;
  }

 private:
  bool BindGeneral(FormatConversion *conversion, FormatValue *value);
  bool SwitchToPositions();
  bool Fetch(FormatArgType type, size_t position, FormatValue *value);
  bool FetchCounts(FormatConversion *conversion, const FormatPlaces &places);
  bool FetchCount(FormatCount *count, size_t place);
};
