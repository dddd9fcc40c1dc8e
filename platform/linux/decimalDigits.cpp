// decimalDigits.cpp -- decimal digits on Linux.
//
// glibc's ecvt and fcvt stop at 17 digits and are inexact for large exponents; its printf is exact
// for any number of digits and reentrant.  The digits are taken out of what it prints, whatever the
// locale's decimal point is.

#include "platform/decimalDigits.h"

#include <ctype.h>
#include <float.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "heap.h"

namespace {

constexpr size_t kMaxRadixLength = 16;  // of a locale's decimal point, in bytes

// A new string with room for `value` printed by `format` with `count` decimals.
HeapStr Print(const char *format, double value, int count) {
  const size_t size =
      DBL_MAX_10_EXP + sizeof "1.e+308" + kMaxRadixLength + static_cast<size_t>(count);
  HeapStr text(static_cast<char *>(malloc(size)));
  if (text && snprintf(text.get(), size, format, count, value) < 0) return nullptr;
  return text;
}

// Moves the digits of [from, end) to `to`, which is not behind them, and terminates them there.
void KeepDigits(char *to, const char *from, const char *end) {
  for (; from < end; ++from) {
    if (isdigit(static_cast<unsigned char>(*from)) != 0) *to++ = *from;
  }
  *to = '\0';
}

}  // namespace

char *Platform_SignificantDigits(double value, int count, int *point) {
  HeapStr text = Print("%.*e", value, count - 1);
  if (!text) return nullptr;
  const char *const exponent = strrchr(text.get(), 'e');
  *point = atoi(exponent + 1) + 1;
  KeepDigits(text.get(), text.get(), exponent);
  return text.release();
}

char *Platform_FixedDigits(double value, int count, int *point) {
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
