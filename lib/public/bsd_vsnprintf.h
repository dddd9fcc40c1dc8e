// bsd_vsnprintf.h -- the printf engine, for those who bring their own buffer, locale or arguments.
//
// Most callers want str.h, which also says what the format language is.  Here `*output` is either a
// buffer of `size` bytes or null; null asks for a new buffer, which `*output` receives on success
// and the caller frees.  The result is the number of bytes that the whole text has, without its
// NUL and also when only a part fitted; or -1 with errno ENOMEM when memory ran out, EILSEQ when a
// wide character has no form in the locale, EOVERFLOW when the text has more than INT_MAX bytes.
// With a size above 0 the buffer ends in a NUL, but maybe in half a character.  Any thread.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <span>

// Numbers as the current locale has them (localeconv).
int bsd_vsnprintf(char **output, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

// Numbers as in the POSIX locale: point ".", no grouping.
int bsd_vsnprintf_posix_locale(char **output, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

// `grouping` is that of localeconv; null means that the flag ' does nothing.
int bsd_vsnprintf_core(char **output, const char *grouping, char thousandsSeparator,
                       const char *decimalPoint, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 6, 0)));

// An argument of any type, as an argument list holds it after promotion.
union FormatValue {
  int64_t integer;  // an int is sign-extended
  double real;
  const void *pointer;
};

// As bsd_vsnprintf with arguments that were captured before: values[0] is the one of position 1.
// Also -1, with errno EINVAL, when the format asks for an argument that is not there.
int bsd_vsnprintf_values(char **output, size_t size, const char *format,
                         std::span<const FormatValue> values);
