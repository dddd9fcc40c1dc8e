// codesetOwn.cpp -- the library's own converters, for a handful of encodings.
//
// A converter reserves the most that its output can take, writes without looking at the room again,
// and gives the buffer its size at the end.  Runs of ASCII are converted by the word, other text
// character by character.
// Tests: tests/unit/codeset_test.cpp, fuzz/codeset_fuzz.cpp
// Speed: bench/codeset_bench.cpp

#include <algorithm>
#include <string_view>

#include "lib/misc/codeset/codesetEngine.h"
#include "lib/misc/codeset/codesetUtf8.h"
#include "lib/public/codeset.h"
#include "lib/public/dynbuf.h"
#include "lib/public/encoding.h"
#include "lib/public/utf8.h"

namespace {

// ---- the buffer ------------------------------------------------------------------------------

// Room for `size` more bytes at the end of `out`; null when there is none to be had.
char *Reserve(DynBuf *out, size_t size) {
  // Most callers append a terminator, which need not cost another block.
  constexpr size_t kTerminator = 4;
  size_t whole;
  if (__builtin_add_overflow(out->size, size, &whole)) return nullptr;
  if (__builtin_add_overflow(whole, kTerminator, &whole)) return nullptr;
  if (whole > out->allocated && !DynBuf_Enlarge(out, whole)) return nullptr;
  return out->data + out->size;
}

// The same for `count` pieces of `size` bytes.
char *Reserve(DynBuf *out, size_t count, size_t size) {
  size_t bytes;
  return __builtin_mul_overflow(count, size, &bytes) ? nullptr : Reserve(out, bytes);
}

// The content ends at `end` now, within what was reserved.
bool Finish(DynBuf *out, const char *end) {
  out->size = static_cast<size_t>(end - out->data);
  return true;
}

// ---- characters ------------------------------------------------------------------------------

constexpr uint32_t kLastCodePoint = 0x10FFFF;
constexpr uint32_t kFirstSupplementary = 0x10000;

bool IsHighSurrogate(uint32_t unit) {
  return (unit & 0xFC00) == 0xD800;
}

bool IsLowSurrogate(uint32_t unit) {
  return (unit & 0xFC00) == 0xDC00;
}

bool IsAscii(char byte) {
  return static_cast<uint8_t>(byte) < 0x80;
}

// The units of four ASCII characters, the low half of a word, as UTF-16LE.
char *WidenHalf(uint64_t half, char *to) {
  uint64_t units = (half | half << 16) & 0x0000FFFF0000FFFF;
  units = (units | units << 8) & 0x00FF00FF00FF00FF;
  memcpy(to, &units, sizeof units);
  return to + sizeof units;
}

char *WidenAscii(uint64_t word, char *to) {
  return WidenHalf(word >> 32, WidenHalf(word & 0xFFFFFFFF, to));
}

char *PutUnit(uint32_t unit, char *to) {
  const auto value = static_cast<uint16_t>(unit);
  memcpy(to, &value, sizeof value);
  return to + sizeof value;
}

// ---- UTF-8 to UTF-16LE -----------------------------------------------------------------------

// How far a conversion has come.
struct Place {
  const char *from;
  char *to;
};

// Converts ASCII up to the next other character, or the end.
Place WidenRun(Place at, const char *end) {
  auto [p, to] = at;
  for (; end - p >= kCodeSetWord; p += kCodeSetWord) {
    // All eight are written: for each byte that is left there is room for a unit, and those that
    // are no ASCII will be written over.
    const uint64_t word = CodeSetLoadWord(p);
    char *const after = WidenAscii(word, to);
    if (const uint64_t topBits = CodeSetTopBits(word); topBits != 0) {
      const size_t prefix = CodeSetAsciiPrefix(topBits);
      return {p + prefix, to + prefix * sizeof(char16_t)};
    }
    to = after;
  }
  while (p < end && IsAscii(*p)) to = PutUnit(static_cast<uint8_t>(*p++), to);
  return {p, to};
}

// Converts other characters, up to the next one of ASCII, or the end.  No place when one is not
// well-formed.
Place ConvertRun(Place at, const char *end) {
  auto [p, to] = at;
  while (p < end && !IsAscii(*p)) {
    uint32_t c;
    const size_t length = CodeSetDecode(p, end, &c);
    if (length == 0 || CodeSetIsSurrogate(c) || c > kLastCodePoint) return {};
    p += length;
    if (length < 4) {
      to = PutUnit(c, to);
    } else {
      to = PutUnit(0xD800 + ((c - kFirstSupplementary) >> 10), to);
      to = PutUnit(0xDC00 + (c & 0x3FF), to);
    }
  }
  return {p, to};
}

bool Utf8ToUtf16le(std::string_view text, int, DynBuf *out) {
  Place at = {text.data(), Reserve(out, text.size(), sizeof(char16_t))};
  if (at.to == nullptr) return false;
  const char *const end = at.from + text.size();
  while (at = WidenRun(at, end), at.from < end) {
    at = ConvertRun(at, end);
    if (at.from == nullptr) return false;
  }
  return Finish(out, at.to);
}

// ---- UTF-16 to UTF-8 -------------------------------------------------------------------------

constexpr ptrdiff_t kUnit = sizeof(char16_t);

template <std::endian order>
uint32_t LoadUnit(const char *p) {
  uint16_t unit;
  memcpy(&unit, p, sizeof unit);
  if (order == std::endian::big) unit = static_cast<uint16_t>(unit << 8 | unit >> 8);
  return unit;
}

// Four units, the first one lowest.
template <std::endian order>
uint64_t LoadUnits(const char *p) {
  constexpr uint64_t kLowBytes = 0x00FF00FF00FF00FF;
  const uint64_t units = CodeSetLoadWord(p);
  return order == std::endian::big ? (units & kLowBytes) << 8 | (units >> 8 & kLowBytes) : units;
}

// The bytes of four units of ASCII.
char *NarrowAscii(uint64_t units, char *to) {
  const uint64_t pairs = (units | units >> 8) & 0x0000FFFF0000FFFF;
  const auto bytes = static_cast<uint32_t>(pairs | pairs >> 16);
  memcpy(to, &bytes, sizeof bytes);
  return to + sizeof bytes;
}

// The character whose surrogates are `high` and the unit at `p`; 0 when they are no pair.
template <std::endian order>
uint32_t Combine(uint32_t high, const char *p, const char *end) {
  if (!IsHighSurrogate(high) || p >= end) return 0;
  const uint32_t low = LoadUnit<order>(p);
  if (!IsLowSurrogate(low)) return 0;
  return kFirstSupplementary + ((high & 0x3FF) << 10 | (low & 0x3FF));
}

template <std::endian order>
bool IsValidUtf16(std::string_view text) {
  if (text.size() % kUnit != 0) return false;
  const char *const end = text.data() + text.size();
  for (const char *p = text.data(); p < end; p += kUnit) {
    const uint32_t unit = LoadUnit<order>(p);
    if (!CodeSetIsSurrogate(unit)) continue;
    p += kUnit;
    if (Combine<order>(unit, p, end) == 0) return false;
  }
  return true;
}

// One byte for ASCII, two for the rest below U+0800, computed without a branch: in European text
// nobody could foresee it.
char *PutShort(uint32_t c, char *to) {
  const uint32_t two = (0x7F - c) >> 31;
  const uint32_t mask = 0 - two;
  to[0] = static_cast<char>((c & ~mask) | ((0xC0 | c >> 6) & mask));
  to[1] = static_cast<char>(0x80 | (c & 0x3F));
  return to + 1 + two;
}

// Converts a run of characters from U+0800 on.  No place when one is not well-formed.
template <std::endian order>
Place EncodeLong(Place at, const char *end) {
  auto [p, to] = at;
  while (p < end) {
    uint32_t c = LoadUnit<order>(p);
    if (c < 0x800) break;
    p += kUnit;
    if (CodeSetIsSurrogate(c)) {
      c = Combine<order>(c, p, end);
      if (c == 0) return {};
      p += kUnit;
    }
    to = Utf8_Encode(c, to);
  }
  return {p, to};
}

// Converts `size` bytes and the run of long characters in which they end.
template <std::endian order>
Place Encode(Place at, ptrdiff_t size, const char *end) {
  const char *const stop = at.from + size;
  while (at.from != nullptr && at.from < stop) {
    const uint32_t c = LoadUnit<order>(at.from);
    at = c < 0x800 ? Place{at.from + kUnit, PutShort(c, at.to)} : EncodeLong<order>(at, end);
  }
  return at;
}

template <std::endian order>
bool Utf16ToUtf8(std::string_view text, int, DynBuf *out) {
  constexpr size_t kMostPerUnit = 3;
  constexpr uint64_t kBeyondAscii = 0xFF80FF80FF80FF80;
  // Where there was something else than ASCII, it is not worth looking for four in a row at once.
  constexpr ptrdiff_t kStretch = 4 * kCodeSetWord;
  if (text.size() % kUnit != 0) return false;
  Place at = {text.data(), Reserve(out, text.size() / kUnit, kMostPerUnit)};
  if (at.to == nullptr) return false;
  const char *const end = at.from + text.size();
  while (at.from < end) {
    const ptrdiff_t left = end - at.from;
    const uint64_t units = left < kCodeSetWord ? kBeyondAscii : LoadUnits<order>(at.from);
    if ((units & kBeyondAscii) == 0) {
      at = {at.from + kCodeSetWord, NarrowAscii(units, at.to)};
    } else {
      at = Encode<order>(at, std::min(left, kStretch), end);
      if (at.from == nullptr) return false;
    }
  }
  return Finish(out, at.to);
}

// ---- one byte a character --------------------------------------------------------------------

bool IsAsciiText(std::string_view text) {
  return std::ranges::all_of(text, IsAscii);
}

bool AsciiToUtf8(std::string_view text, int flags, DynBuf *out) {
  constexpr uint32_t kReplacement = 0xFFFD;
  constexpr size_t kReplacementSize = 3;
  char *to = Reserve(out, text.size(), kReplacementSize);
  if (to == nullptr) return false;
  for (const char byte : text) {
    if (IsAscii(byte)) {
      *to++ = byte;
    } else if (flags == CODESET_STOP) {
      return false;
    } else if ((flags & CODESET_SUBSTITUTE) != 0) {
      to = Utf8_Encode(kReplacement, to);
    }
  }
  return Finish(out, to);
}

bool Utf8ToAscii(std::string_view text, int flags, DynBuf *out) {
  constexpr char kSub = 0x1A;
  char *to = Reserve(out, text.size());
  if (to == nullptr) return false;
  const char *const end = text.data() + text.size();
  for (const char *p = text.data(); p < end;) {
    if (IsAscii(*p)) {
      *to++ = *p++;
      continue;
    }
    if (flags == CODESET_STOP) return false;
    if ((flags & CODESET_SUBSTITUTE) != 0) *to++ = kSub;
    // One substitute for a character, and one for each byte that belongs to none.
    uint32_t codePoint;
    p += std::max<size_t>(1, CodeSetDecode(p, end, &codePoint));
  }
  return Finish(out, to);
}

bool Latin1ToUtf8(std::string_view text, int, DynBuf *out) {
  constexpr size_t kMostPerByte = 2;
  char *to = Reserve(out, text.size(), kMostPerByte);
  if (to == nullptr) return false;
  // The 256 characters of ISO 8859-1 are the first ones of Unicode.
  for (const char byte : text) to = Utf8_Encode(static_cast<uint8_t>(byte), to);
  return Finish(out, to);
}

// ---- the engine ------------------------------------------------------------------------------

bool IsValidUtf8(std::string_view text) {
  return CodeSet_IsValidUTF8(text.data(), text.size());
}

// An encoding to itself: what is not valid must not get any further, not even repaired.
template <bool (*isValid)(std::string_view)>
bool CopyIf(std::string_view text, int, DynBuf *out) {
  char *const to = isValid(text) ? Reserve(out, text.size()) : nullptr;
  if (to == nullptr) return false;
  memcpy(to, text.data(), text.size());
  return Finish(out, to + text.size());
}

struct Converter {
  StringEncoding from, to;
  bool (*convert)(std::string_view text, int flags, DynBuf *out);
};

// The current encoding is UTF-8 and needs no rows of its own.
using enum StringEncoding;
constexpr auto kLittle = std::endian::little;
constexpr auto kBig = std::endian::big;
constexpr Converter kConverters[] = {
    {Utf8, Utf8, CopyIf<IsValidUtf8>},
    {Utf16Le, Utf16Le, CopyIf<IsValidUtf16<kLittle>>},
    {Utf16Be, Utf16Be, CopyIf<IsValidUtf16<kBig>>},
    {UsAscii, UsAscii, CopyIf<IsAsciiText>},
    {Utf8, Utf16Le, Utf8ToUtf16le},
    {Utf8, UsAscii, Utf8ToAscii},
    {Utf16Le, Utf8, Utf16ToUtf8<kLittle>},
    {Utf16Be, Utf8, Utf16ToUtf8<kBig>},
    {UsAscii, Utf8, AsciiToUtf8},
    {Iso8859_1, Utf8, Latin1ToUtf8},
};

bool ConvertByName(const char *fromName, const char *bytes, size_t length, const char *toName,
                   int flags, DynBuf *out) {
  const StringEncoding from = Unicode_EncodingNameToEnum(fromName);
  const StringEncoding to = Unicode_EncodingNameToEnum(toName);
  for (const Converter &row : kConverters) {
    if (row.from == from && row.to == to) return row.convert({bytes, length}, flags, out);
  }
  return false;
}

bool IsValidByName(const char *bytes, size_t length, const char *name) {
  ScopedDynBuf converted;
  return ConvertByName(name, bytes, length, kCurrentCodeSet, CODESET_STOP, &converted);
}

}  // namespace

constinit const CodeSetEngine kCodeSetOwnEngine = {ConvertByName, IsValidByName};
