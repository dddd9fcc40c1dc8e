// bsd_vsnprintf.cpp -- the printf engine: four stages, one file each.
//
//   format --> formatGrammar   takes a conversion apart
//          --> formatBind      finds its width, precision and value among the arguments
//          --> formatConvert   turns the value into bytes
//          --> formatSink      keeps what fits, or grows
//
// Conversions differ from the host's printf where str.h says so.
//
// Tests: tests/unit/format_test.cpp, fuzz/format_fuzz.cpp

#include "lib/public/bsd_vsnprintf.h"

#include "lib/public/formatGrammar.h"
#include "lib/string/formatBind.h"
#include "lib/string/formatConvert.h"
#include "lib/string/formatLocale.h"
#include "lib/string/formatSink.h"

namespace {

void FormatAll(FormatSink &sink, FormatLocale &locale, const char *format, FormatBinder &binder) {
  for (const char *at = format; !sink.Failed();) {
    const char *const percent = FormatGrammar_Find(at);
    if (percent != at) sink.Write(at, static_cast<size_t>(percent - at));
    if (*percent == '\0') return;
    FormatConversion conversion;
    at = FormatGrammar_Parse(percent, &conversion);
    if (conversion.kind == FormatKind::End) return;
    FormatValue value;
    if (!binder.Bind(&conversion, &value)) return sink.Fail();
    FormatConvert(sink, locale, conversion, value);
  }
}

int FormatTo(char **output, size_t size, const char *format, FormatLocale &locale,
             FormatBinder &binder) {
  if (*output != nullptr) {
    FormatSink sink(*output, size);
    FormatAll(sink, locale, format, binder);
    return sink.Finish();
  }
  FormatSink sink(format);
  FormatAll(sink, locale, format, binder);
  const int count = sink.Finish();
  if (count >= 0) *output = sink.Release();
  return count;
}

}  // namespace

int bsd_vsnprintf(char **output, size_t size, const char *format, va_list args) {
  FormatLocale locale;
  FormatBinder binder(format, &args);
  return FormatTo(output, size, format, locale, binder);
}

int bsd_vsnprintf_posix_locale(char **output, size_t size, const char *format, va_list args) {
  FormatLocale locale(kFormatPosixNumerals);
  FormatBinder binder(format, &args);
  return FormatTo(output, size, format, locale, binder);
}

int bsd_vsnprintf_core(char **output, const char *grouping, char thousandsSeparator,
                       const char *decimalPoint, size_t size, const char *format, va_list args) {
  FormatLocale locale({decimalPoint, grouping, thousandsSeparator});
  FormatBinder binder(format, &args);
  return FormatTo(output, size, format, locale, binder);
}

int bsd_vsnprintf_values(char **output, size_t size, const char *format,
                         std::span<const FormatValue> values) {
  FormatLocale locale;
  FormatBinder binder(values);
  return FormatTo(output, size, format, locale, binder);
}
