// formatField.h -- what the conversions share: sign, padding, and how much of a string is printed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lib/public/formatGrammar.h"

// What fills a field up to its width.
struct FormatPadding {
  size_t blanksBefore = 0;
  size_t zeros = 0;
  size_t blanksBehind = 0;

  size_t Total() const { return blanksBefore + zeros + blanksBehind; }
};

inline FormatPadding FormatPaddingOf(const FormatConversion &field, size_t length, bool mayZero) {
  const size_t width = static_cast<size_t>(field.width.number);
  if (width <= length) return {};
  const size_t missing = width - length;
  if (field.Has(kFormatLeft)) return {0, 0, missing};
  if (mayZero && field.Has(kFormatZero)) return {0, missing, 0};
  return {missing, 0, 0};
}

// The sign before a number that is `negative` or not; NUL for none.
inline char FormatSignOf(const FormatConversion &field, bool negative) {
  if (negative) return '-';
  return field.Has(kFormatPlus) ? '+' : field.Has(kFormatBlank) ? ' ' : '\0';
}

// The most bytes that a string may have: its precision, or no limit.
inline size_t FormatLimitOf(const FormatConversion &field) {
  return field.HasPrecision() ? static_cast<size_t>(field.precision.number) : SIZE_MAX;
}
