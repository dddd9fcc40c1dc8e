// decimalDigits.cpp -- decimal digits on Linux.
//
// glibc's ecvt and fcvt stop at 17 digits and are inexact for large exponents; its printf is reentrant
// and exact for any number of digits.  The digits are extracted from its output, whatever the locale's
// decimal point is.  Values with few decimals that are neither huge nor tiny do not need printf: they
// are scaled to integers in exact 128-bit arithmetic.
// Tests: tests/unit/format_test.cpp

#include "platform/decimalDigits.h"

#include <ctype.h>
#include <float.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <bit>
#include <cstdint>

#include "lib/public/heap.h"

namespace {

__extension__ using Wide = unsigned __int128;

constexpr size_t kMaxRadixLength = 16;  // of a locale's decimal point, in bytes

// A new string with room for `value` printed by `format` with `count` decimals.
HeapStr Print(const char *format, double value, int count) {
  const size_t size =
      DBL_MAX_10_EXP + sizeof "1.e+308" + kMaxRadixLength + static_cast<size_t>(count);
  HeapStr text(Heap_Array<char>(size).release());
  if (text && snprintf(text.get(), size, format, count, value) < 0) return nullptr;
  return text;
}

// Moves the digits of [from, end) to `to`, which may be `from` or before it, and terminates them.
void KeepDigits(char *to, const char *from, const char *end) {
  for (; from < end; ++from) {
    if (isdigit(static_cast<unsigned char>(*from)) != 0) *to++ = *from;
  }
  *to = '\0';
}

// As many as fit in 64 bits.
constexpr auto kPowersOf10 = [] {
  std::array<uint64_t, 20> powers{1};
  for (size_t i = 1; i < powers.size(); ++i) powers[i] = 10 * powers[i - 1];
  return powers;
}();

// `value` times ten to the power `count`, rounded to the nearest integer, ties to even.  False if the
// result might not be exact.
bool Scale(double value, int count, uint64_t *scaled) {
  constexpr int kFractionBits = DBL_MANT_DIG - 1;
  const uint64_t bits = std::bit_cast<uint64_t>(value);
  const int biased = static_cast<int>(bits >> kFractionBits);
  // value = mantissa / 2^shift; a subnormal, whose mantissa has no implied bit, is far too small.
  const int shift = DBL_MAX_EXP - 1 + kFractionBits - biased;
  if (count >= static_cast<int>(kPowersOf10.size()) || shift <= 0 || shift > 127 || biased == 0)
    return false;
  Wide wide = (bits & ((uint64_t{1} << kFractionBits) - 1)) | uint64_t{1} << kFractionBits;
  wide *= kPowersOf10[static_cast<size_t>(count)];
  const Wide half = Wide{1} << (shift - 1);
  const Wide rest = wide & (2 * half - 1);
  wide >>= shift;
  if (rest > half || (rest == half && wide % 2 != 0)) ++wide;
  *scaled = static_cast<uint64_t>(wide);
  return wide <= UINT64_MAX;
}

}  // namespace

char *Platform_SignificantDigits(double value, int count, int *point) {
  HeapStr text = Print("%.*e", value, count - 1);
  if (!text) return nullptr;
  const char *const exponent = strrchr(text.get(), 'e');
  *point = static_cast<int>(strtol(exponent + 1, nullptr, 10)) + 1;
  KeepDigits(text.get(), text.get(), exponent);
  return text.release();
}

char *Platform_FixedDigits(double value, int count, int *point) {
  uint64_t scaled;
  if (Scale(value, count, &scaled)) {
    char text[sizeof "18446744073709551615"];
    char *digits = text + sizeof text;
    *--digits = '\0';
    for (; scaled != 0; scaled /= 10) *--digits = static_cast<char>('0' + scaled % 10);
    *point = static_cast<int>(text + sizeof text - 1 - digits) - count;
    return strdup(digits);
  }
  HeapStr text = Print("%.*f", value, count);
  if (!text) return nullptr;
  char *const digits = text.get();
  const size_t whole = strspn(digits, "0123456789");
  KeepDigits(digits, digits, digits + strlen(digits));
  const size_t zeros = value == 0 ? 1 : strspn(digits, "0");
  *point = static_cast<int>(whole) - static_cast<int>(zeros);
  memmove(digits, digits + zeros, strlen(digits + zeros) + 1);
  return text.release();
}
