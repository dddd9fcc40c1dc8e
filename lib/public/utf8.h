// utf8.h -- from code points to UTF-8: one by one, and 32-bit code units piece by piece; and where
// the last character of a text begins.
#pragma once

#include <cstddef>
#include <cstdint>

// Writes `codePoint`, below 0x110000, in the shortest form; a surrogate is encoded like another
// value.  Returns where its bytes, 1 to 4, end.
inline char *Utf8_Encode(uint32_t codePoint, char *to) {
  const auto tail = [](uint32_t bits) { return static_cast<char>(0x80 | (bits & 0x3F)); };
  if (codePoint < 0x80) {
    *to++ = static_cast<char>(codePoint);
    return to;
  }
  if (codePoint < 0x800) {
    *to++ = static_cast<char>(0xC0 | codePoint >> 6);
  } else if (codePoint < 0x10000) {
    *to++ = static_cast<char>(0xE0 | codePoint >> 12);
    *to++ = tail(codePoint >> 6);
  } else {
    *to++ = static_cast<char>(0xF0 | codePoint >> 18);
    *to++ = tail(codePoint >> 12);
    *to++ = tail(codePoint >> 6);
  }
  *to++ = tail(codePoint);
  return to;
}

enum class Utf8Result {
  Ok = 0,
  SourceExhausted = 1,  // the source ends within a character; cannot happen with 32-bit units
  TargetExhausted = 2,  // the next character does not fit
  SourceIllegal = 3,    // a unit is no character
};

enum class Utf8Mode {
  Strict,   // a surrogate is illegal
  Lenient,  // a surrogate is encoded like another character
};

// Converts the units in [*source, sourceEnd) into the room [*target, targetEnd) and advances both
// pointers past what was converted; no NUL is added.  A character is written whole or not at all.
//   TargetExhausted  *source is at the unit that did not fit: go on from there with more room.
//                    Says nothing of illegal units before it.
//   SourceIllegal    in strict mode *source may be at a surrogate, where the conversion stopped.
//                    Otherwise all was converted, and units of 0x110000 and more became U+FFFD.
// Unit is wchar_t, char32_t or uint32_t.  Any thread.
template <typename Unit>
[[nodiscard]] Utf8Result Utf8_FromUtf32(const Unit **source, const Unit *sourceEnd, char **target,
                                        char *targetEnd, Utf8Mode mode);

// The end of a text: its last byte that is no continuation byte, and those behind it.
struct Utf8Tail {
  size_t start;       // of that byte; 0 when the text has continuation bytes only
  ptrdiff_t missing;  // continuation bytes still to come; negative when there are too many; 0 after
                      // an ASCII byte, whatever follows it
};

// The tail of the `length` bytes at `text`; {0, 0} when there are none.  Any thread.
[[nodiscard]] Utf8Tail Utf8_Tail(const char *text, size_t length);
