// codesetUtf16.h -- UTF-8 from and to UTF-16, into room that the caller has.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "lib/misc/codeset/codesetUtf8.h"

constexpr uint32_t kCodeSetFirstSupplementary = 0x10000;

// The most bytes that a byte of UTF-8 takes as UTF-16, and a unit of UTF-16 as UTF-8.
constexpr size_t kCodeSetUtf16PerByte = 2;
constexpr size_t kCodeSetUtf8PerUnit = 3;

// Converts a well-formed text to UTF-16LE.  Returns where the units end.
char *CodeSetUtf8ToUtf16le(std::string_view text, char *to);

// Converts UTF-16 of either byte order.  Returns where the bytes end; null when the text is not
// well-formed.
template <std::endian order>
char *CodeSetUtf16ToUtf8(std::string_view text, char *to);

// ---- units of UTF-16 -------------------------------------------------------------------------

template <std::endian order>
uint32_t CodeSetLoadUnit(const char *p) {
  uint16_t unit;
  memcpy(&unit, p, sizeof unit);
  return order == std::endian::big ? __builtin_bswap16(unit) : unit;
}

// Takes a character from [*p, end), whole units and at least one.  False for a surrogate that belongs
// to no pair.
template <std::endian order>
bool CodeSetTakeUtf16(const char **p, const char *end, uint32_t *codePoint) {
  constexpr ptrdiff_t kUnit = sizeof(char16_t);
  *codePoint = CodeSetLoadUnit<order>(*p);
  *p += kUnit;
  if (!CodeSetIsSurrogate(*codePoint)) return true;
  if (*p == end) return false;
  const uint32_t high = *codePoint - 0xD800, low = CodeSetLoadUnit<order>(*p) - 0xDC00;
  *p += kUnit;
  *codePoint = kCodeSetFirstSupplementary + (high << 10 | low);
  return high < 0x400 && low < 0x400;
}
