// base64.cpp -- Base64: three bytes become four characters of six bits each.

#include "base64.h"

#include <cstdint>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Without computing the text's size, which may not fit into a size_t.
bool Fits(size_t srcLength, size_t dstMax) {
  return srcLength < SIZE_MAX - 1 && dstMax > 0 && (srcLength + 2) / 3 <= (dstMax - 1) / 4;
}

// One group of `count` bytes, 1 to 3; what a short one lacks is padded.
char *EncodeGroup(const uint8_t *src, size_t count, char *dst) {
  uint32_t bits = 0;
  for (size_t i = 0; i < 3; i++) bits = bits << 8 | (i < count ? src[i] : 0U);
  for (size_t i = 0; i < 4; i++) {
    *dst++ = i <= count ? kAlphabet[bits >> (18 - 6 * i) & 0x3F] : '=';
  }
  return dst;
}

}  // namespace

bool Base64_Encode(const void *src, size_t srcLength, char *dst, size_t dstMax, size_t *dstLength) {
  if (dstLength != nullptr) *dstLength = 0;
  if (!Fits(srcLength, dstMax)) return false;
  const auto *next = static_cast<const uint8_t *>(src);
  char *end = dst;
  for (size_t left = srcLength; left > 0;) {
    const size_t count = left < 3 ? left : 3;
    end = EncodeGroup(next, count, end);
    next += count;
    left -= count;
  }
  *end = '\0';
  if (dstLength != nullptr) *dstLength = static_cast<size_t>(end - dst);
  return true;
}
