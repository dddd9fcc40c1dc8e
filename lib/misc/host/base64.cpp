// base64.cpp -- Base64: three bytes become four characters of six bits each, and back.
//
// Tests: tests/unit/hostServices_test.cpp

#include "lib/public/base64.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Does not compute the text's size, which may not fit into a size_t.
bool Fits(size_t srcLength, size_t dstMax) {
  return srcLength < SIZE_MAX - 1 && dstMax > 0 && (srcLength + 2) / 3 <= (dstMax - 1) / 4;
}

// One group of `count` bytes, 1 to 3; a short group is padded.  Returns the end of the text.
char *EncodeGroup(const uint8_t *src, size_t count, char *dst) {
  uint32_t bits = 0;
  for (size_t i = 0; i < 3; i++) bits = bits << 8 | (i < count ? src[i] : 0U);
  for (size_t i = 0; i < 4; i++) {
    *dst++ = i <= count ? kAlphabet[bits >> (18 - 6 * i) & 0x3F] : '=';
  }
  return dst;
}

// One group of four characters.  Returns the number of bytes, 1 to 3, or 0 for an invalid group.  Only
// the last group may be padded, and the bits that the padding cuts off must be zero.
size_t DecodeGroup(const char *text, bool last, uint8_t bytes[3]) {
  uint32_t bits = 0;
  size_t padding = 0;
  for (size_t i = 0; i < 4; i++) {
    const char c = text[i];
    if (c == '=' && last && i >= 2) {
      padding++;
      bits <<= 6;
      continue;
    }
    const char *const digit = c == '\0' ? nullptr : strchr(kAlphabet, c);
    if (digit == nullptr || padding > 0) return 0;
    bits = bits << 6 | static_cast<uint32_t>(digit - kAlphabet);
  }
  for (size_t i = 0; i < 3; i++) bytes[i] = static_cast<uint8_t>(bits >> (16 - 8 * i));
  const size_t count = 3 - padding;
  for (size_t i = count; i < 3; i++) {
    if (bytes[i] != 0) return 0;
  }
  return count;
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

bool Base64_Decode(const char *text, void *dst, size_t dstMax, size_t *dstLength) {
  *dstLength = 0;
  const size_t length = strlen(text);
  if (length % 4 != 0) return false;
  auto *const out = static_cast<uint8_t *>(dst);
  size_t done = 0;
  for (size_t at = 0; at < length; at += 4) {
    uint8_t bytes[3];
    const size_t count = DecodeGroup(text + at, at + 4 == length, bytes);
    if (count == 0 || count > dstMax - done) return false;
    memcpy(out + done, bytes, count);
    done += count;
  }
  *dstLength = done;
  return true;
}
