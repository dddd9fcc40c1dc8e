// codesetUtf8.h -- the small steps on UTF-8 bytes that the checks and the converters inline.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

// Eight bytes at a time, the first one lowest.
static_assert(std::endian::native == std::endian::little);
constexpr ptrdiff_t kCodeSetWord = 8;

inline uint64_t CodeSetLoadWord(const char *p) {
  uint64_t word;
  memcpy(&word, p, sizeof word);
  return word;
}

// The top bits of a word's bytes: 0 when all of them are ASCII.
inline uint64_t CodeSetTopBits(uint64_t word) {
  return word & 0x8080808080808080;
}

// How many bytes from the first on are ASCII, given their top bits.
inline size_t CodeSetAsciiPrefix(uint64_t topBits) {
  return static_cast<size_t>(std::countr_zero(topBits)) / 8;
}

inline bool CodeSetIsSurrogate(uint32_t codePoint) {
  return codePoint >> 11 == 0xD800 >> 11;
}

// Whether all of these are continuation bytes.
inline bool CodeSetAreTails(uint32_t a, uint32_t b = 0x80, uint32_t c = 0x80) {
  return ((a ^ 0x80) | (b ^ 0x80) | (c ^ 0x80)) < 0x40;
}

// The body of CodeSet_GetUtf8.  Each length is written out: converters inline this, and their speed
// hangs on it.
inline size_t CodeSetDecode(const char *p, const char *end, uint32_t *codePoint) {
  const auto byte = [p](int i) { return static_cast<uint32_t>(static_cast<uint8_t>(p[i])); };
  const auto tail = [byte](int i) { return byte(i) & 0x3F; };

  const ptrdiff_t left = end - p;
  if (left < 1) return 0;
  const uint32_t lead = byte(0);
  if (lead < 0x80) {
    *codePoint = lead;
    return 1;
  }
  if (lead < 0xE0) {
    if (lead < 0xC2 || left < 2 || !CodeSetAreTails(byte(1))) return 0;
    *codePoint = (lead & 0x1F) << 6 | tail(1);
    return 2;
  }
  if (lead < 0xF0) {
    if (left < 3 || !CodeSetAreTails(byte(1), byte(2))) return 0;
    const uint32_t value = (lead & 0x0F) << 12 | tail(1) << 6 | tail(2);
    if (value < 0x800) return 0;
    *codePoint = value;
    return 3;
  }
  if (lead > 0xF4 || left < 4 || !CodeSetAreTails(byte(1), byte(2), byte(3))) return 0;
  const uint32_t value = (lead & 0x07) << 18 | tail(1) << 12 | tail(2) << 6 | tail(3);
  if (value < 0x10000) return 0;
  *codePoint = value;
  return 4;
}
