// unicode.h -- the library's strings: UTF-8, made from and turned into other encodings, and taken
// apart by code points.
//
// Strings are NUL-terminated and not null unless told otherwise.  New strings and blocks are never
// null for want of memory, unless told so; the caller frees them with free().  Positions and
// lengths count code points unless bytes are named.  A string that is not well-formed UTF-8 is
// fatal where code points are counted.  Any thread may call anything here.
#pragma once

#include <cstddef>

#include "lib/public/encoding.h"

using UnicodeIndex = ptrdiff_t;

// Runs CodeSet_Init, once for the process: threads that come meanwhile wait, later calls do
// nothing.  Link lumen_unicodeInit.
void Unicode_Init(const char *icuDataDir);

// ---- from and to other encodings -------------------------------------------------------------
//
// "To its end" is, for a text in UTF-16 or UTF-32, up to a unit of zero, and otherwise up to a zero
// byte.  Which pairs of encodings there are depends on the engine that converts (codeset.h).

// A new string with the text of `length` bytes, -1 for one to its end.  Null for a null `buffer`.
// Invalid parts become U+FFFD where the engine heeds the flags: always with ICU, and in US-ASCII
// with the library's own engine.  Otherwise an invalid text is fatal, and so are, for a text that is
// not empty, an encoding that the engine does not convert from and exhausted memory.
[[nodiscard]] char *Unicode_AllocWithLength(const void *buffer, ptrdiff_t length,
                                            StringEncoding encoding);
[[nodiscard]] char *Unicode_Alloc(const void *buffer, StringEncoding encoding);

// A new block with the string, or its first `length` bytes, in the encoding, followed by a
// terminator that *outLength (bytes; may be null) does not count.  Null for a null string, and when
// the string is not UTF-8 or cannot be expressed, the engine does not convert to the encoding, or
// memory is exhausted; but for UTF-16LE any failure is fatal, and for UTF-8 what is not UTF-8 goes
// unnoticed.
[[nodiscard]] char *Unicode_GetAllocBytesWithLength(const char *string, StringEncoding encoding,
                                                    ptrdiff_t length, size_t *outLength);
[[nodiscard]] char *Unicode_GetAllocBytes(const char *string, StringEncoding encoding);

// The same for each string of an array of `count`, or with -1 of one that a null ends.  The new
// array, itself freed with free(), ends with a null, too.  Null when a conversion fails; null
// strings stay null.
[[nodiscard]] char **Unicode_GetAllocList(char *const *strings, ptrdiff_t count,
                                          StringEncoding encoding);

// A text of `length` bytes, -1 for one to its end, in printable ASCII: control characters, the
// backslash and bytes from 7F on become \x and two upper-case hexadecimal digits.  Null when memory
// is exhausted.
[[nodiscard]] char *Unicode_EscapeBuffer(const void *buffer, ptrdiff_t length,
                                         StringEncoding encoding);

// ---- whole strings ---------------------------------------------------------------------------

// A copy; null for null.
[[nodiscard]] char *Unicode_Duplicate(const char *string);

// The strings up to the null, one after the other; null when the first is null.
[[nodiscard]] char *Unicode_Join(const char *first, ...) __attribute__((sentinel));

// Formatted text, as Str_Asprintf makes it; null when that fails.
[[nodiscard]] char *Unicode_Format(const char *format, ...) __attribute__((format(printf, 1, 2)));

// ---- by code points --------------------------------------------------------------------------
//
// A range is a start and a length.  A start below 0 means 0, one beyond the string its end.  A
// length below 0, or one that runs past the string, means to the end.

[[nodiscard]] UnicodeIndex Unicode_LengthInCodePoints(const char *string);

// The range as a new string.
[[nodiscard]] char *Unicode_Substr(const char *string, UnicodeIndex start, UnicodeIndex length);

// Where in the string the needle's range stands first, or last, wholly within the string's range;
// -1 when nowhere.  An empty needle is found where the range starts.
[[nodiscard]] UnicodeIndex Unicode_FindSubstrInRange(const char *string, UnicodeIndex start,
                                                     UnicodeIndex length, const char *needle,
                                                     UnicodeIndex needleStart,
                                                     UnicodeIndex needleLength);
[[nodiscard]] UnicodeIndex Unicode_FindLastSubstrInRange(const char *string, UnicodeIndex start,
                                                         UnicodeIndex length, const char *needle,
                                                         UnicodeIndex needleStart,
                                                         UnicodeIndex needleLength);

// A new string: `dest` with the source's range in place of its own.
[[nodiscard]] char *Unicode_ReplaceRange(const char *dest, UnicodeIndex start, UnicodeIndex length,
                                         const char *source, UnicodeIndex sourceStart,
                                         UnicodeIndex sourceLength);

// The order of two ranges, -1, 0 or 1, by their UTF-16 code units: a character beyond U+FFFF stands
// before U+E000.  With ignoreCase all characters are replaced by their simple case foldings first.
[[nodiscard]] int Unicode_CompareRange(const char *string1, UnicodeIndex start1,
                                       UnicodeIndex length1, const char *string2,
                                       UnicodeIndex start2, UnicodeIndex length2, bool ignoreCase);
