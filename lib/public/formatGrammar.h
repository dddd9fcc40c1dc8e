// formatGrammar.h -- the conversions of a printf format, taken apart.
//
//   % [position] [flags] [width] [.precision] [size modifier] conversion
//
//   position   digits and `$`: which argument to print, from 1; POSIX
//   flags      # - 0 + blank '
//   width      digits, `*`, or `*digits$`; precision the same after a `.`, none meaning 0
//   size       hh h l ll q L j t z Z I I32 I64
//   conversion one character: d i u o x X c s p n e E f F g G, the long forms D O U, the wide
//              forms C S; any other, `%` too, prints as itself; so do a A, for which a double is
//              passed all the same
//
// The parser looks at the format only and never at arguments, so that the printf engine and the
// capture of arguments read a format alike.  It is lenient: modifiers may come in any order and the
// last of a kind counts.  Numbers above INT_MAX count as INT_MAX.  Any thread may call it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// What a conversion does with its argument.
enum class FormatKind : uint8_t {
  End,       // the format ended within the conversion: nothing to print
  Literal,   // no argument: the conversion character itself
  Signed,    // d i D
  Unsigned,  // u U
  Octal,     // o O
  Hex,       // x X
  Pointer,   // p
  Char,      // c C
  String,    // s S
  Float,     // e E f F g G
  HexFloat,  // a A: takes a double and prints the conversion character
  Count,     // n
};

// The normalised size modifier; D O U C S have Long unless the modifier says more.  Integers of a
// size up to Short are passed as int.
enum class FormatSize : uint8_t {
  None,
  Int,       // I32
  Char,      // hh
  Short,     // h
  Long,      // l
  LongLong,  // ll q L I64
  IntMax,    // j
  PtrDiff,   // t
  Size,      // z Z I
};

// Whether c or s with this modifier means wide characters.
constexpr bool FormatSize_IsWide(FormatSize size) {
  return size == FormatSize::Long || size == FormatSize::LongLong || size == FormatSize::IntMax;
}

enum FormatFlag : uint8_t {
  kFormatAlternate = 1,    // #
  kFormatLeft = 2,         // -
  kFormatZero = 4,         // 0
  kFormatPlus = 8,         // +
  kFormatBlank = 16,       // blank
  kFormatGrouping = 32,    // '
  kFormatStar = 64,        // width or precision is an argument
  kFormatPositions = 128,  // a `$` was met
};

// A width or precision.
struct FormatCount {
  enum Source : uint8_t { Absent, Literal, Argument };
  Source source = Absent;
  int number = 0;  // the literal; or the position of the argument, 0 meaning the next in turn
};

struct FormatConversion {
  FormatKind kind = FormatKind::End;
  FormatSize size = FormatSize::None;
  uint8_t flags = 0;      // of FormatFlag
  char character = '\0';  // as written; NUL for FormatKind::End
  int position = 0;       // of the argument, from 1; 0 meaning the next in turn
  FormatCount width;
  FormatCount precision;
  const char *positionDigits = nullptr;  // in the format; null when there is no position

  bool Has(FormatFlag flag) const { return (flags & flag) != 0; }
  bool HasPrecision() const { return precision.source != FormatCount::Absent; }
  // Whether an argument is passed for it, width and precision aside.
  bool TakesValue() const { return kind != FormatKind::End && kind != FormatKind::Literal; }
};

// The first `%` at or after `at`, or the format's end.
[[nodiscard]] inline const char *FormatGrammar_Find(const char *at) {
  // Most literals are shorter than what a call costs.
  for (int i = 0; i < 8; ++i, ++at) {
    if (*at == '%' || *at == '\0') return at;
  }
  const char *const percent = strchr(at, '%');
  return percent != nullptr ? percent : at + strlen(at);
}

// Takes apart the conversion whose `%` is at `percent`; returns the place behind it.
[[nodiscard]] const char *FormatGrammar_Parse(const char *percent, FormatConversion *conversion);

// ---- the arguments of a whole format ----------------------------------------------------------

// The positions of the arguments that a conversion takes, from 1; 0 for those that it does not.
struct FormatPlaces {
  size_t width = 0;
  size_t precision = 0;
  size_t value = 0;
};

// The highest position that a format may name.  Arguments fetched by position are all kept, so without
// a limit a format could ask for any amount of memory.  This is NL_ARGMAX of glibc.
inline constexpr size_t kFormatMaxPosition = 4096;

// Which argument is next in turn where no position is named.
class FormatTurn {
  size_t next_ = 1;

 public:
  // The places of the next conversion of a format.  A position for its value moves the turn, a
  // position at a `*` does not.
  FormatPlaces PlacesOf(const FormatConversion &conversion) {
    FormatPlaces places;
    if (conversion.Has(kFormatStar)) {
      places.width = PlaceOf(conversion.width);
      places.precision = PlaceOf(conversion.precision);
    }
    if (conversion.TakesValue()) {
      if (conversion.position != 0) next_ = static_cast<size_t>(conversion.position);
      places.value = next_++;
    }
    return places;
  }

 private:
  size_t PlaceOf(const FormatCount &count) {
    if (count.source != FormatCount::Argument) return 0;
    return count.number != 0 ? static_cast<size_t>(count.number) : next_++;
  }
};

// Visits the conversions of a format with their positions, without the arguments.
class FormatWalk {
  const char *percent_ = nullptr;
  const char *next_;
  FormatTurn turn_;
  FormatConversion conversion_;
  FormatPlaces places_;

 public:
  explicit FormatWalk(const char *format) : next_(format) {}

  // Steps to the next conversion; false when there is none.
  bool Next() {
    percent_ = FormatGrammar_Find(next_);
    if (*percent_ == '\0') return false;
    next_ = FormatGrammar_Parse(percent_, &conversion_);
    places_ = turn_.PlacesOf(conversion_);
    return true;
  }

  // The last of a format that ends within a conversion is of FormatKind::End.
  const FormatConversion &Conversion() const { return conversion_; }
  const FormatPlaces &Places() const { return places_; }
  // From the `%` to behind the conversion.
  const char *Begin() const { return percent_; }
  const char *End() const { return next_; }
};
