// formatConvert.h -- stage 3 of formatting: from one value to the bytes of its field.
//
// Every conversion makes the same row of runs, most of them mostly empty:
//   blanks, sign or prefix, zeros, body, blanks
// and announces its length to the sink before it writes.
#pragma once

#include <algorithm>
#include <cstddef>

#include "lib/string/formatBind.h"
#include "lib/string/formatLocale.h"
#include "lib/string/formatSink.h"

// Prints `value` as `field` says; a failure shows in the sink.  Stores the count for %n.
void FormatConvert(FormatSink &sink, FormatLocale &locale, const FormatConversion &field,
                   FormatValue value);

// Its parts, by kind of conversion.
void FormatConvertInteger(FormatSink &sink, FormatLocale &locale, const FormatConversion &field,
                          int64_t value);
void FormatConvertFloat(FormatSink &sink, FormatLocale &locale, const FormatConversion &field,
                        double value);
void FormatConvertString(FormatSink &sink, const FormatConversion &field, const void *string);
// Also for a character that is no conversion.
void FormatConvertChar(FormatSink &sink, const FormatConversion &field, int value);

// What a field is filled up with to its width.
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
