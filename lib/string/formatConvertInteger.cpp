// formatConvertInteger.cpp -- d i u o x X p: integers.
//
// The number of digits is known before the first is written, so a field that fits is written in place,
// its digits from the last to the first.
//
// Tests: tests/unit/format_test.cpp, fuzz/format_fuzz.cpp

#include <algorithm>
#include <array>
#include <bit>

#include "lib/string/formatConvert.h"
#include "lib/string/formatField.h"

namespace {

// The longest: 20 decimal digits with 19 separators between.
constexpr size_t kMaxDigits = 40;

constexpr auto kPairs = [] {
  std::array<char, 200> pairs{};
  for (size_t i = 0; i < 100; ++i) {
    pairs[2 * i] = static_cast<char>('0' + i / 10);
    pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}();

constexpr auto kPowersOf10 = [] {
  std::array<uint64_t, 20> powers{1};
  for (size_t i = 1; i < powers.size(); ++i) powers[i] = 10 * powers[i - 1];
  return powers;
}();

size_t BitWidth(uint64_t value) {
  return static_cast<size_t>(std::bit_width(value));
}

size_t CountDecimal(uint64_t value) {
  // log10(2) is about 1233/4096; the estimate is right or one too small.
  const size_t estimate = BitWidth(value | 1) * 1233 >> 12;
  return estimate + ((value | 1) >= kPowersOf10[estimate] ? 1 : 0);
}

// Each writes the digits of `value` in front of `end`, for zero one.

template <typename Unsigned>
Unsigned PutPair(Unsigned value, char *end) {
  memcpy(end - 2, &kPairs[2 * static_cast<size_t>(value % 100)], 2);
  return value / 100;
}

void PutDecimal(uint64_t value, char *end) {
  // Division of 32 bits is faster, and most numbers are small.
  for (; value > UINT32_MAX; end -= 2) value = PutPair(value, end);
  uint32_t small = static_cast<uint32_t>(value);
  for (; small >= 100; end -= 2) small = PutPair(small, end);
  if (small >= 10) {
    PutPair(small, end);
  } else {
    end[-1] = static_cast<char>('0' + small);
  }
}

void PutOctal(uint64_t value, char *end) {
  do {
    *--end = static_cast<char>('0' + (value & 7));
  } while ((value >>= 3) != 0);
}

void PutHex(uint64_t value, char *end, const char *digits) {
  do {
    *--end = digits[value & 15];
  } while ((value >>= 4) != 0);
}

// The value as an argument of the type that the size modifier says.

int64_t NarrowSigned(int64_t value, FormatSize size) {
  if (size <= FormatSize::Int) return static_cast<int>(value);
  if (size == FormatSize::Char) return static_cast<signed char>(value);
  return size == FormatSize::Short ? static_cast<short>(value) : value;
}

uint64_t NarrowUnsigned(int64_t value, FormatSize size) {
  if (size <= FormatSize::Int) return static_cast<unsigned>(value);
  if (size == FormatSize::Char) return static_cast<unsigned char>(value);
  if (size == FormatSize::Short) return static_cast<unsigned short>(value);
  return static_cast<uint64_t>(value);
}

struct Decimal {
  static size_t Count(uint64_t value) { return CountDecimal(value); }
  static void Put(uint64_t value, char *end) { PutDecimal(value, end); }
};

struct Octal {
  static size_t Count(uint64_t value) { return (BitWidth(value | 1) + 2) / 3; }
  static void Put(uint64_t value, char *end) { PutOctal(value, end); }
};

struct LowerHex {
  static size_t Count(uint64_t value) { return (BitWidth(value | 1) + 3) / 4; }
  static void Put(uint64_t value, char *end) { PutHex(value, end, "0123456789abcdef"); }
};

struct UpperHex {
  static size_t Count(uint64_t value) { return (BitWidth(value | 1) + 3) / 4; }
  static void Put(uint64_t value, char *end) { PutHex(value, end, "0123456789ABCDEF"); }
};

// What stands before the zeros and digits of a number.
struct Head {
  char sign = '\0';    // none
  char prefix = '\0';  // none; else the letter of "0x"

  size_t Length() const { return sign != '\0' ? 1 : prefix != '\0' ? 2 : 0; }
  char *Put(char *to) const {
    if (sign != '\0') *to++ = sign;
    if (prefix != '\0') *to++ = '0';
    if (prefix != '\0') *to++ = prefix;
    return to;
  }
};

// Zero with precision 0 is the one number without digits.
bool IsEmpty(const FormatConversion &field, uint64_t value) {
  return value == 0 && field.HasPrecision() && field.precision.number == 0;
}

struct Layout {
  size_t digits;  // with zeros before them
  size_t blanks;
};

// A number of `count` digits, of which at least `wanted` are asked for: more by the precision, or
// to fill the width up with zeros.
inline Layout LayOut(const FormatConversion &field, size_t headLength, size_t count,
                     size_t wanted) {
  const size_t width = static_cast<size_t>(field.width.number);
  size_t digits = std::max(count, wanted);
  if (field.HasPrecision()) {
    digits = std::max(digits, static_cast<size_t>(field.precision.number));
  } else if ((field.flags & (kFormatZero | kFormatLeft)) == kFormatZero) {
    digits = std::max(digits + headLength, width) - headLength;
  }
  const size_t length = headLength + digits;
  return {digits, std::max(width, length) - length};
}

void PrintPieces(FormatSink &sink, const FormatConversion &field, Head head, Layout layout,
                 const char *digits, size_t count) {
  char headText[2];
  head.Put(headText);
  sink.MakeRoom(layout.blanks + head.Length() + layout.digits);
  if (!field.Has(kFormatLeft)) sink.Fill(' ', layout.blanks);
  sink.Write(headText, head.Length());
  sink.Fill('0', layout.digits - count);
  sink.Write(digits, count);
  if (field.Has(kFormatLeft)) sink.Fill(' ', layout.blanks);
}

// Where the room ends within the field.  Out of line, for the array costs a check of the stack.
template <typename Base>
[[gnu::noinline]] void PrintCut(FormatSink &sink, const FormatConversion &field, Head head,
                                Layout layout, uint64_t value, size_t count) {
  char digits[kMaxDigits];
  if (count != 0) Base::Put(value, digits + count);
  PrintPieces(sink, field, head, layout, digits, count);
}

template <typename Base>
inline void Print(FormatSink &sink, const FormatConversion &field, Head head, uint64_t value,
                  size_t wanted = 0) {
  const size_t count = IsEmpty(field, value) ? 0 : Base::Count(value);
  const Layout layout = LayOut(field, head.Length(), count, wanted);
  char *to = sink.Reserve(layout.blanks + head.Length() + layout.digits);
  if (to == nullptr) return PrintCut<Base>(sink, field, head, layout, value, count);
  if (layout.blanks != 0 && !field.Has(kFormatLeft)) to = FormatFill(to, ' ', layout.blanks);
  to = head.Put(to);
  to = FormatFill(to, '0', layout.digits - count) + count;
  if (count != 0) Base::Put(value, to);
  if (layout.blanks != 0 && field.Has(kFormatLeft)) FormatFill(to, ' ', layout.blanks);
}

// The sizes of the groups stand in `grouping`, from the right; the last one repeats.  CHAR_MAX
// means that no further group follows, and no number is that long; an empty list means no group.
char *PutGrouped(uint64_t value, char *end, const FormatNumerals &numerals) {
  const char *group = numerals.grouping;
  int inGroup = 0;
  do {
    if (inGroup == *group && inGroup != 0) {
      *--end = numerals.thousandsSeparator;
      inGroup = 0;
      if (group[1] != '\0') ++group;
    }
    *--end = static_cast<char>('0' + value % 10);
    ++inGroup;
  } while ((value /= 10) != 0);
  return end;
}

[[gnu::noinline]] void PrintGrouped(FormatSink &sink, const FormatNumerals &numerals,
                                    const FormatConversion &field, Head head, uint64_t value) {
  char digits[kMaxDigits];
  char *const end = digits + sizeof digits;
  const bool isEmpty = IsEmpty(field, value);
  const char *const begin = isEmpty ? end : PutGrouped(value, end, numerals);
  const size_t count = static_cast<size_t>(end - begin);
  PrintPieces(sink, field, head, LayOut(field, head.Length(), count, 0), begin, count);
}

void PrintDecimal(FormatSink &sink, FormatLocale &locale, const FormatConversion &field, Head head,
                  uint64_t value) {
  if (field.Has(kFormatGrouping) && locale.Get().grouping != nullptr) {
    return PrintGrouped(sink, locale.Get(), field, head, value);
  }
  Print<Decimal>(sink, field, head, value);
}

}  // namespace

void FormatConvertSigned(FormatSink &sink, FormatLocale &locale, const FormatConversion &field,
                         int64_t argument) {
  const int64_t value = NarrowSigned(argument, field.size);
  const uint64_t magnitude =
      value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  PrintDecimal(sink, locale, field, {FormatSignOf(field, value < 0)}, magnitude);
}

void FormatConvertUnsigned(FormatSink &sink, FormatLocale &locale, const FormatConversion &field,
                           int64_t argument) {
  PrintDecimal(sink, locale, field, {}, NarrowUnsigned(argument, field.size));
}

void FormatConvertOctal(FormatSink &sink, const FormatConversion &field, int64_t argument) {
  const uint64_t value = NarrowUnsigned(argument, field.size);
  // With # the first digit is a zero.
  const size_t wanted = !field.Has(kFormatAlternate) ? 0 : value == 0 ? 1 : Octal::Count(value) + 1;
  Print<Octal>(sink, field, {}, value, wanted);
}

void FormatConvertHex(FormatSink &sink, const FormatConversion &field, int64_t argument) {
  const uint64_t value = NarrowUnsigned(argument, field.size);
  Head head;
  if (field.Has(kFormatAlternate) && value != 0) head.prefix = field.character;
  if (field.character == 'x') return Print<LowerHex>(sink, field, head, value);
  Print<UpperHex>(sink, field, head, value);
}

// Never with a prefix.
void FormatConvertPointer(FormatSink &sink, const FormatConversion &field, const void *pointer) {
  Print<UpperHex>(sink, field, {}, reinterpret_cast<uintptr_t>(pointer));
}
