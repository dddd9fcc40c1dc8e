// formatConvertInteger.cpp -- d i u o x X p: integers, from the last digit to the first.

#include <climits>
#include <string_view>

#include "lib/string/formatConvert.h"

namespace {

// The longest: 22 octal digits and a zero, or 20 decimal digits with 19 separators between.
constexpr size_t kMaxDigits = 40;

constexpr auto kPairs = [] {
  struct {
    char digits[200];
  } pairs{};
  for (int i = 0; i < 100; ++i) {
    pairs.digits[2 * i] = static_cast<char>('0' + i / 10);
    pairs.digits[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}();

// Each writes the digits of `value` in front of `end` and returns their begin; none for 0.

template <typename Unsigned>
char *PutPairs(Unsigned value, char *end) {
  for (; value >= 10; value /= 100) {
    end -= 2;
    memcpy(end, &kPairs.digits[2 * (value % 100)], 2);
  }
  if (value != 0) *--end = static_cast<char>('0' + value);
  return end;
}

char *PutDecimal(uint64_t value, char *end) {
  // Division of 32 bits is much faster, and most numbers are small.
  while (value > UINT32_MAX) {
    end -= 2;
    memcpy(end, &kPairs.digits[2 * (value % 100)], 2);
    value /= 100;
  }
  return PutPairs(static_cast<uint32_t>(value), end);
}

// The sizes of the groups stand in `grouping`, from the right; the last one repeats, and CHAR_MAX,
// or an empty list, means that no further group follows.
char *PutGrouped(uint64_t value, char *end, const FormatNumerals &numerals) {
  const char *group = numerals.grouping;
  for (int inGroup = 0; value != 0; value /= 10) {
    if (inGroup == *group && *group != CHAR_MAX && *group != '\0') {
      *--end = numerals.thousandsSeparator;
      inGroup = 0;
      if (group[1] != '\0') ++group;
    }
    *--end = static_cast<char>('0' + value % 10);
    ++inGroup;
  }
  return end;
}

char *PutOctal(uint64_t value, char *end) {
  for (; value != 0; value >>= 3) *--end = static_cast<char>('0' + (value & 7));
  return end;
}

char *PutHex(uint64_t value, char *end, bool upper) {
  const char *const digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  for (; value != 0; value >>= 4) *--end = digits[value & 15];
  return end;
}

int64_t NarrowSigned(int64_t value, FormatSize size) {
  switch (size) {
    case FormatSize::Char:
      return static_cast<signed char>(value);
    case FormatSize::Short:
      return static_cast<short>(value);
    case FormatSize::None:
    case FormatSize::Int:
      return static_cast<int>(value);
    default:
      return value;
  }
}

uint64_t NarrowUnsigned(int64_t value, FormatSize size) {
  switch (size) {
    case FormatSize::Char:
      return static_cast<unsigned char>(value);
    case FormatSize::Short:
      return static_cast<unsigned short>(value);
    case FormatSize::None:
    case FormatSize::Int:
      return static_cast<unsigned>(value);
    default:
      return static_cast<uint64_t>(value);
  }
}

// A number on its way: what stands before its zeros, and its digits in front of `end`.
struct Number {
  char head[2];
  size_t headLength = 0;
  char *begin;
  char *end;

  void AddHead(char c) { head[headLength++] = c; }
};

char *PutBase10(uint64_t value, char *end, FormatLocale &locale, const FormatField &field) {
  if (!field.Has(kFormatGrouping)) return PutDecimal(value, end);
  const FormatNumerals &numerals = locale.Get();
  return numerals.grouping == nullptr ? PutDecimal(value, end) : PutGrouped(value, end, numerals);
}

void ConvertDigits(Number *number, FormatLocale &locale, const FormatField &field, int64_t value) {
  char *const end = number->end;
  if (field.kind == FormatKind::Signed) {
    const int64_t narrow = NarrowSigned(value, field.size);
    if (const char sign = FormatSignOf(field, narrow < 0); sign != '\0') number->AddHead(sign);
    const uint64_t magnitude =
        narrow < 0 ? 0 - static_cast<uint64_t>(narrow) : static_cast<uint64_t>(narrow);
    number->begin = PutBase10(magnitude, end, locale, field);
    return;
  }
  if (field.kind == FormatKind::Pointer) {
    number->begin = PutHex(static_cast<uint64_t>(value), end, true);
    return;
  }
  const uint64_t narrow = NarrowUnsigned(value, field.size);
  if (field.kind == FormatKind::Unsigned) {
    number->begin = PutBase10(narrow, end, locale, field);
  } else if (field.kind == FormatKind::Octal) {
    number->begin = PutOctal(narrow, end);
    if (field.Has(kFormatAlternate)) *--number->begin = '0';
  } else {
    number->begin = PutHex(narrow, end, field.character == 'X');
    if (field.Has(kFormatAlternate) && narrow != 0) {
      number->AddHead('0');
      number->AddHead(field.character);
    }
  }
}

}  // namespace

void FormatConvertInteger(FormatSink &sink, FormatLocale &locale, const FormatField &field,
                          int64_t value) {
  char digits[kMaxDigits];
  Number number;
  number.end = digits + sizeof digits;
  ConvertDigits(&number, locale, field, value);
  if (number.begin == number.end && field.precision != 0) *--number.begin = '0';

  const size_t count = static_cast<size_t>(number.end - number.begin);
  const bool hasPrecision = field.precision >= 0;
  const size_t wanted = hasPrecision ? static_cast<size_t>(field.precision) : 0;
  const size_t zeros = wanted > count ? wanted - count : 0;
  const size_t length = number.headLength + zeros + count;
  const FormatPadding padding = FormatPaddingOf(field, length, !hasPrecision);
  sink.Expect(padding.blanksBefore + padding.zeros + length + padding.blanksBehind);
  sink.Fill(' ', padding.blanksBefore);
  sink.Write(number.head, number.headLength);
  sink.Fill('0', padding.zeros + zeros);
  sink.Write(number.begin, count);
  sink.Fill(' ', padding.blanksBehind);
}
