// formatConvert.h -- stage 3 of formatting: from one value to the bytes of its field.
//
// Every conversion writes the same sequence of runs, most of which are usually empty:
//   blanks, sign or prefix, zeros, body, blanks
// and makes room for all of them before it writes the first.
#pragma once

#include <cstdint>

#include "lib/string/formatBind.h"
#include "lib/string/formatLocale.h"
#include "lib/string/formatSink.h"

// Prints `value` as `field` says; a failure shows in the sink.  Stores the count for %n.
void FormatConvert(FormatSink &sink, FormatLocale &locale, const FormatConversion &field,
                   FormatValue value);

// Its parts, by kind of conversion.
void FormatConvertSigned(FormatSink &sink, FormatLocale &locale, const FormatConversion &field,
                         int64_t argument);
void FormatConvertUnsigned(FormatSink &sink, FormatLocale &locale, const FormatConversion &field,
                           int64_t argument);
void FormatConvertOctal(FormatSink &sink, const FormatConversion &field, int64_t argument);
void FormatConvertHex(FormatSink &sink, const FormatConversion &field, int64_t argument);
void FormatConvertPointer(FormatSink &sink, const FormatConversion &field, const void *pointer);
void FormatConvertFloat(FormatSink &sink, FormatLocale &locale, const FormatConversion &field,
                        double value);
void FormatConvertString(FormatSink &sink, const FormatConversion &field, const void *string);
// Also for a character that is no conversion.
void FormatConvertChar(FormatSink &sink, const FormatConversion &field, int value);
