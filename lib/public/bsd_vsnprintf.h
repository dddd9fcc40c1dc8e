// bsd_vsnprintf.h -- the printf engine, for callers that bring their own buffer, locale or arguments.
//
// Most callers want str.h, which also says what the format language is.  Here `*output` is either a
// buffer of `size` bytes or null; null asks for a new buffer, which `*output` receives on success
// and the caller frees with free().  The result is the number of bytes of the whole text without its
// NUL, even when only a part of it fitted; or -1 with errno
//   ENOMEM     memory ran out
//   EILSEQ     a wide character (%lc) has no form in the locale
//   EINVAL     the format names a position above kFormatMaxPosition
//   EOVERFLOW  the text has more than INT_MAX bytes
// Without memory for the types of more than 8 positions the process aborts.  With a size above 0 the
// buffer ends in a NUL, but maybe in half a character.  Any thread.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <span>

// Numbers as in the current locale (localeconv).
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

// As bsd_vsnprintf with arguments that were captured before: values[0] is the one at position 1.
// EINVAL also when the format asks for an argument that is not there.
int bsd_vsnprintf_values(char **output, size_t size, const char *format,
                         std::span<const FormatValue> values);
