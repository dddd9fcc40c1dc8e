// str.h -- string formatting into bounded buffers and new heap strings, and bounded copies.
//
// The format language is printf's (ISO C, with POSIX positional arguments and grouping), taken
// apart as formatGrammar.h says.  What differs from the host's printf:
//   %p    upper-case hexadecimal without a prefix
//   %ls   32-bit code units, converted to UTF-8 whatever the locale; one above 10FFFF is fatal
//   %s    prints "(null)" for a null pointer; so does %ls
//   %.0f  rounds halves away from zero; all other roundings take the even digit
//   %f    prints "nan" without a minus, as the other conversions of doubles do
//   %Lf   prints the nearest double
//   %'d   groups digits only if the locale separates them by one ASCII character
//   %a    prints as itself, like an unknown conversion character, but takes its argument
//   %n$   takes no position above kFormatMaxPosition
// Sizes and results are bytes; results do not count the terminating NUL.  A format is not null, a
// buffer only when its size is 0.  Every procedure may be called from any thread.  "Fatal" is
// Panic, which ends the process.
#pragma once

#include <cstdarg>
#include <cstddef>

// ---- into a buffer of `size` bytes -----------------------------------------------------------
//
// A result that does not fit is cut so that the buffer stays terminated and never ends in half a
// UTF-8 character.  With size 0 nothing is written.

// The length when the text fits; -1 when it was cut, or when it could not be formatted, with errno
// as bsd_vsnprintf.h says.
int Str_Vsnprintf(char *buffer, size_t size, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));
int Str_Snprintf(char *buffer, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// As Str_Snprintf, but a text that does not fit is fatal.
int Str_Sprintf(char *buffer, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// As Str_Sprintf with the numbers of the POSIX locale: point ".", no grouping.
int Str_SprintfPosixLocale(char *buffer, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// ---- into a new string -----------------------------------------------------------------------
//
// The caller frees the result with free().  `length` may be null; on success it receives the
// string's length; on failure it is left alone.

// Null, with errno as bsd_vsnprintf.h says, when memory runs out or the arguments cannot be
// formatted.
[[nodiscard]] char *Str_Asprintf(size_t *length, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
[[nodiscard]] char *Str_Vasprintf(size_t *length, const char *format, va_list args)
    __attribute__((format(printf, 2, 0)));

// Never null: failure is fatal.
[[nodiscard]] char *Str_SafeAsprintf(size_t *length, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
[[nodiscard]] char *Str_SafeVasprintf(size_t *length, const char *format, va_list args)
    __attribute__((format(printf, 2, 0)));

// ---- bounded copies --------------------------------------------------------------------------
//
// `size` is the room in `dest`, with its NUL.  What does not fit is fatal.  Strings are not null
// and do not overlap.  All but Str_Strnstr and Str_Strlen return dest.

char *Str_Strcpy(char *dest, const char *src, size_t size);

// Copies the first n bytes of src, or up to its NUL; always terminates.
char *Str_Strncpy(char *dest, size_t size, const char *src, size_t n);

// The length up to the first NUL, at most n; never reads past n bytes.
size_t Str_Strlen(const char *s, size_t n);

// The first occurrence of `needle` within the first n bytes of s, or up to its NUL; null if there is
// none.  An empty needle is found at s.
char *Str_Strnstr(const char *s, const char *needle, size_t n);

char *Str_Strcat(char *dest, const char *src, size_t size);

// Appends at most n bytes of src.
char *Str_Strncat(char *dest, size_t size, const char *src, size_t n);

// ASCII letters only, in place; returns s.
char *Str_ToLower(char *s);
char *Str_ToUpper(char *s);
