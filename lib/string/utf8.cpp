// utf8.cpp -- from 32-bit code units to UTF-8, and the last character of a text.
//
// Tests: tests/unit/format_test.cpp

#include "lib/public/utf8.h"

#include <bit>

namespace {

constexpr uint32_t kLimit = 0x110000;
constexpr uint32_t kReplacement = 0xFFFD;

bool IsSurrogate(uint32_t unit) {
  return unit >= 0xD800 && unit <= 0xDFFF;
}

ptrdiff_t LengthOf(uint32_t unit) {
  return unit < 0x80 ? 1 : unit < 0x800 ? 2 : unit < 0x10000 ? 3 : 4;
}

}  // namespace

template <typename Unit>
Utf8Result Utf8_FromUtf32(const Unit **source, const Unit *sourceEnd, char **target,
                          char *targetEnd, Utf8Mode mode) {
  Utf8Result result = Utf8Result::Ok;
  for (; *source < sourceEnd; ++*source) {
    auto unit = std::bit_cast<uint32_t>(**source);
    if (mode == Utf8Mode::Strict && IsSurrogate(unit)) return Utf8Result::SourceIllegal;
    const bool illegal = unit >= kLimit;
    if (illegal) unit = kReplacement;
    const ptrdiff_t length = LengthOf(unit);
    if (length > targetEnd - *target) return Utf8Result::TargetExhausted;
    if (illegal) result = Utf8Result::SourceIllegal;
    *target = Utf8_Encode(unit, *target);
  }
  return result;
}

template Utf8Result Utf8_FromUtf32(const wchar_t **, const wchar_t *, char **, char *, Utf8Mode);
template Utf8Result Utf8_FromUtf32(const char32_t **, const char32_t *, char **, char *, Utf8Mode);
template Utf8Result Utf8_FromUtf32(const uint32_t **, const uint32_t *, char **, char *, Utf8Mode);

Utf8Tail Utf8_Tail(const char *text, size_t length) {
  const auto leadingOnes = [text](size_t i) {
    return std::countl_one(static_cast<unsigned char>(text[i]));
  };
  if (length == 0) return {0, 0};
  size_t start = length - 1;
  while (start > 0 && leadingOnes(start) == 1) --start;
  const auto there = static_cast<ptrdiff_t>(length - start);
  switch (leadingOnes(start)) {
    case 0:
      return {start, 0};
    case 1:  // continuation bytes back to the beginning
      return {start, -there};
    default:
      return {start, leadingOnes(start) - there};
  }
}
