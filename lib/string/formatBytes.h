// formatBytes.h -- memcpy and memset without the call, since most pieces of a text have few bytes.
//
// Two words that may overlap cover every length between one word and two.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

template <typename Word>
inline void FormatCopyEnds(char *to, const char *from, size_t n) {
  Word first;
  Word last;
  memcpy(&first, from, sizeof first);
  memcpy(&last, from + n - sizeof last, sizeof last);
  memcpy(to, &first, sizeof first);
  memcpy(to + n - sizeof last, &last, sizeof last);
}

template <typename Word>
inline void FormatFillEnds(char *to, char c, size_t n) {
  Word word;
  memset(&word, c, sizeof word);
  memcpy(to, &word, sizeof word);
  memcpy(to + n - sizeof word, &word, sizeof word);
}

using FormatBlock = std::array<uint64_t, 2>;

inline constexpr size_t kFormatShort = 32;

// Both return `to` behind the bytes.

// Of kFormatShort bytes at most.
inline char *FormatCopy(char *to, const char *from, size_t n) {
  if (n >= 16) {
    FormatCopyEnds<FormatBlock>(to, from, n);
  } else if (n >= 8) {
    FormatCopyEnds<uint64_t>(to, from, n);
  } else if (n >= 4) {
    FormatCopyEnds<uint32_t>(to, from, n);
  } else if (n >= 2) {
    FormatCopyEnds<uint16_t>(to, from, n);
  } else if (n == 1) {
    *to = *from;
  }
  return to + n;
}

inline char *FormatFill(char *to, char c, size_t n) {
  if (n > kFormatShort) {
    memset(to, c, n);
  } else if (n >= 16) {
    FormatFillEnds<FormatBlock>(to, c, n);
  } else if (n >= 8) {
    FormatFillEnds<uint64_t>(to, c, n);
  } else if (n >= 4) {
    FormatFillEnds<uint32_t>(to, c, n);
  } else if (n >= 2) {
    FormatFillEnds<uint16_t>(to, c, n);
  } else if (n == 1) {
    *to = c;
  }
  return to + n;
}
