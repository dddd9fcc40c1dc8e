// unicode.h -- the library's strings: UTF-8, made from and turned into other encodings, and taken
// apart by code points.
//
// Unless stated otherwise, strings are NUL-terminated and not null, and exhausted memory is fatal.
// The caller frees new strings and blocks with free().  Positions and lengths count code points
// unless bytes are named.  A string that is not well-formed UTF-8 is fatal where code points are
// counted.  Any thread may call anything here.
#pragma once

#include <cstddef>

#include "lib/public/encoding.h"

using UnicodeIndex = ptrdiff_t;

// Runs CodeSet_Init once for the process.  Threads that call this meanwhile wait until it is done;
// later calls do nothing.  Link lumen_unicodeInit.
void Unicode_Init(const char *icuDataDir);

// ---- from and to other encodings -------------------------------------------------------------
//
// A text given with length -1 ends before its terminator: a unit of zero in UTF-16 and UTF-32, a zero
// byte in other encodings.  Which pairs of encodings can be converted depends on the engine
// (codeset.h).

// A new string with the text of `length` bytes, or -1.  Null for a null `buffer`.  Invalid parts become
// U+FFFD where the engine follows the flags: always with ICU, and in US-ASCII with the library's own
// engine.  Otherwise an invalid text is fatal, and so is, for a text that is not empty, an encoding
// that the engine does not convert from.  The fatal message shows as much of the text, escaped, as
// fits into a record of the log.
[[nodiscard]] char *Unicode_AllocWithLength(const void *buffer, ptrdiff_t length,
                                            StringEncoding encoding);
[[nodiscard]] char *Unicode_Alloc(const void *buffer, StringEncoding encoding);

// A new block with the string, or its first `length` bytes, in the encoding, followed by a
// terminator that *outLength (bytes; may be null) does not count.  Null for a null string.  Null with
// the errno of codeset.h (ENOMEM, too) when the string is not UTF-8 or cannot be expressed, or the
// engine does not convert to the encoding.  There are two exceptions: for UTF-16LE any failure is
// fatal, and for UTF-8 the string is copied unchecked.
[[nodiscard]] char *Unicode_GetAllocBytesWithLength(const char *string, StringEncoding encoding,
                                                    ptrdiff_t length, size_t *outLength);
[[nodiscard]] char *Unicode_GetAllocBytes(const char *string, StringEncoding encoding);

// The same for each string of an array of `count` strings, or of one that ends with a null if `count`
// is -1.  The new array, which is freed with free(), too, ends with a null.  Null strings stay null.
// Null when a conversion fails.
[[nodiscard]] char **Unicode_GetAllocList(char *const *strings, ptrdiff_t count,
                                          StringEncoding encoding);

// A text of `length` bytes, or -1, in printable ASCII: control characters, the backslash and bytes from
// 7F on become \x and two upper-case hexadecimal digits.  Null with errno ENOMEM when memory is
// exhausted.
[[nodiscard]] char *Unicode_EscapeBuffer(const void *buffer, ptrdiff_t length,
                                         StringEncoding encoding);

// ---- whole strings ---------------------------------------------------------------------------

// A copy; null for null.
[[nodiscard]] char *Unicode_Duplicate(const char *string);

// All strings before the null, concatenated; null when the first is null.
[[nodiscard]] char *Unicode_Join(const char *first, ...) __attribute__((sentinel));

// Formatted text, as from Str_Asprintf; null when that fails.
[[nodiscard]] char *Unicode_Format(const char *format, ...) __attribute__((format(printf, 1, 2)));

// ---- by code points --------------------------------------------------------------------------
//
// A range is a start and a length.  A start below 0 means 0, and a start beyond the string means its
// end.  A length that is negative or runs past the string means up to its end.

[[nodiscard]] UnicodeIndex Unicode_LengthInCodePoints(const char *string);

// The range as a new string.
[[nodiscard]] char *Unicode_Substr(const char *string, UnicodeIndex start, UnicodeIndex length);

// The index in the string of the first, or last, occurrence of the needle's range that lies wholly
// within the string's range; -1 when there is none.  An empty needle is found at the range's start.
[[nodiscard]] UnicodeIndex Unicode_FindSubstrInRange(const char *string, UnicodeIndex start,
                                                     UnicodeIndex length, const char *needle,
                                                     UnicodeIndex needleStart,
                                                     UnicodeIndex needleLength);
[[nodiscard]] UnicodeIndex Unicode_FindLastSubstrInRange(const char *string, UnicodeIndex start,
                                                         UnicodeIndex length, const char *needle,
                                                         UnicodeIndex needleStart,
                                                         UnicodeIndex needleLength);

// A new string: `dest` with its range replaced by the source's range.
[[nodiscard]] char *Unicode_ReplaceRange(const char *dest, UnicodeIndex start, UnicodeIndex length,
                                         const char *source, UnicodeIndex sourceStart,
                                         UnicodeIndex sourceLength);

// The order of two ranges, -1, 0 or 1, by their UTF-16 code units: a character beyond U+FFFF comes
// before U+E000.  With ignoreCase, by the simple case foldings of the characters (Unicode,
// CaseFolding.txt).
[[nodiscard]] int Unicode_CompareRange(const char *string1, UnicodeIndex start1,
                                       UnicodeIndex length1, const char *string2,
                                       UnicodeIndex start2, UnicodeIndex length2, bool ignoreCase);
