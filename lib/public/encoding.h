// encoding.h -- encodings of text, by number and by name.
//
// Any thread may call anything here.
#pragma once

#include <cstdint>

// The encodings that are used by number.  The type holds any of the 324 numbers, 0 to 323, of the name
// table (lib/unicode/encodings/encodings.inc); Unicode_EncodingNameToEnum returns the others, too.
enum class StringEncoding : int32_t {
  Unknown = -2,
  Current = -1,
  Utf8 = 0,
  Utf16Le,
  Utf16Be,
  Utf16,  // of the host's byte order
  Utf32Le,
  Utf32Be,
  Utf32,
  UsAscii,
  Iso8859_1,
  Iso8859_2,
  Iso8859_3,
  Iso8859_4,
  Iso8859_5,
  Iso8859_6,
  Iso8859_7,
  Iso8859_8,
  Iso8859_9,
  Iso8859_10,
  ShiftJis = 27,
  EucJp,
  JisX0201 = 43,
};

// The name of the current encoding, which paths and arguments are in, on every host.
inline constexpr char kCurrentCodeSet[] = "UTF-8";

// The preferred name of the encoding, a constant; for Current, that of the current encoding.  Fatal
// for Unknown and any other number that is no encoding.
[[nodiscard]] const char *Unicode_EncodingEnumToName(StringEncoding encoding);

// The encoding that has this name (not null).  Unknown, after a log record, when there is none, and
// Unknown without a record when the library knows the encoding but cannot use it.
//   "windows-N"  and "Windows-N" name the encoding with the Windows code page N.
//   Other names  are those of the IANA registry and of ICU.  If none is equal, the first one with the
//                same letters and digits is meant, ignoring case: "latin-1" and "LATIN1" are "latin1".
// Each name that was found is remembered as long as the process lives, so an untrusted source must
// not be able to ask for any number of names.
[[nodiscard]] StringEncoding Unicode_EncodingNameToEnum(const char *name);

// The current encoding's number: Utf8.
[[nodiscard]] StringEncoding Unicode_GetCurrentEncoding();

// Whether the number is below the number of encodings, which is true of the two specials, too.
[[nodiscard]] bool Unicode_IsEncodingValid(StringEncoding encoding);
