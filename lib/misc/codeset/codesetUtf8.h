// codesetUtf8.h -- UTF-8 by the byte and by the word, for checks and converters.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

// A word has eight bytes of a text, the first one lowest.
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

// Where the first byte is that is not ASCII; `end` when there is none.
inline const char *CodeSetSkipAscii(const char *p, const char *end) {
  for (; end - p >= kCodeSetWord; p += kCodeSetWord) {
    const uint64_t topBits = CodeSetTopBits(CodeSetLoadWord(p));
    if (topBits != 0) return p + std::countr_zero(topBits) / 8;
  }
  while (p < end && static_cast<uint8_t>(*p) < 0x80) p++;
  return p;
}

// Whether the processor has SSSE3: shuffles of a vector's bytes.
inline bool CodeSetHasSsse3() {
#if defined(__SSSE3__)
  return true;
#elif defined(__x86_64__)
  return __builtin_cpu_supports("ssse3") != 0;
#else
  return false;
#endif
}

// CodeSet_IsValidUTF8 as it works on processors without SSSE3.
bool CodeSetUtf8DfaAccepts(const char *p, const char *end);

inline bool CodeSetIsSurrogate(uint32_t codePoint) {
  return codePoint >> 11 == 0xD800 >> 11;
}

// Whether all of these are continuation bytes.
inline bool CodeSetAreTails(uint32_t a, uint32_t b = 0x80, uint32_t c = 0x80) {
  return ((a ^ 0x80) | (b ^ 0x80) | (c ^ 0x80)) < 0x40;
}

// The body of CodeSet_GetUtf8.  Each length is written out for the speed of the converters, which
// inline it.
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
