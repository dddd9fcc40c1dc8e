// encoding.h -- encodings of text, by number and by name.
//
// Any thread may call anything here.
#pragma once

#include <cstdint>

// The encodings that code asks for.  The type holds any of the 324 numbers, 0 to 323, of the name
// table (lib/unicode/encodings/encodings.inc); those without an enumerator come from their names.
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

// The name of the current encoding, which is the one of paths and arguments, on every host.
inline constexpr char kCurrentCodeSet[] = "UTF-8";

// The preferred name of the encoding, a constant; of Current, the current encoding's.  Unknown, and
// any other number that is no encoding, is fatal.
[[nodiscard]] const char *Unicode_EncodingEnumToName(StringEncoding encoding);

// The encoding that `name` (not null) names; Unknown, after a log record, when there is none, and
// Unknown, silently, when the library knows the encoding but cannot use it.
//   "windows-N"  names the encoding of the Windows code page N, with a small or capital W.
//                Spelt otherwise it may be found or not.
//   Other names  are those of the IANA registry and ICU.  Where no name is equal, one with the same
//                letters and digits counts, in either case: "latin-1" and "LATIN1" are "latin1".
// Each name that was found once is remembered for good, so names must not come from a stranger
// without bound.
[[nodiscard]] StringEncoding Unicode_EncodingNameToEnum(const char *name);

// The current encoding's number: Utf8.
[[nodiscard]] StringEncoding Unicode_GetCurrentEncoding();

// Whether the number is below the number of encodings.  The two specials are, too.
[[nodiscard]] bool Unicode_IsEncodingValid(StringEncoding encoding);
