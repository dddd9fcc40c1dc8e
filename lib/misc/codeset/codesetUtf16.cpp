// codesetUtf16.cpp -- UTF-8 from and to UTF-16.
//
// Everywhere: one character after the other, and ASCII by the word.  Where the processor has SSSE3,
// several characters at once: most texts are words with a blank after each, and a branch on the
// length of a character is mispredicted at nearly every blank.  Instead, the lengths of the next
// characters are an index into a table of byte shuffles, which move each character's bytes into a
// lane of its own or, in the other direction, the lanes' bytes together.
// Tests: tests/unit/codeset_test.cpp, fuzz/codeset_fuzz.cpp
// Speed: bench/codeset_bench.cpp

#include "lib/misc/codeset/codesetUtf16.h"

#include <algorithm>
#include <array>

#include "lib/public/utf8.h"

#ifdef __x86_64__
#include <tmmintrin.h>
#endif

namespace {

constexpr ptrdiff_t kUnit = sizeof(char16_t);

// How far a conversion has come.
struct Place {
  const char *from;
  char *to;
};

// ---- vectors ---------------------------------------------------------------------------------

#ifdef __x86_64__

constexpr ptrdiff_t kVector = sizeof(__m128i);
constexpr ptrdiff_t kBlock = 64;  // bytes
constexpr unsigned kLanes = 4;

using Shuffle = std::array<uint8_t, kVector>;
constexpr uint8_t kZero = 0x80;  // in a shuffle: a byte of zero

__m128i Load(const void *p) {
  return _mm_loadu_si128(static_cast<const __m128i *>(p));
}

void Store(__m128i vector, char *to) {
  _mm_storeu_si128(reinterpret_cast<__m128i *>(to), vector);
}

__m128i AllLanes(int value) {
  return _mm_set1_epi32(value);
}

#endif

// ---- from UTF-8 ------------------------------------------------------------------------------

char *PutUnit(uint32_t unit, char *to) {
  const auto value = static_cast<uint16_t>(unit);
  memcpy(to, &value, sizeof value);
  return to + sizeof value;
}

char *PutUtf16(uint32_t c, char *to) {
  if (c < kCodeSetFirstSupplementary) return PutUnit(c, to);
  to = PutUnit(0xD800 + ((c - kCodeSetFirstSupplementary) >> 10), to);
  return PutUnit(0xDC00 + (c & 0x3FF), to);
}

// The units of four ASCII characters, the low half of a word.
char *PutAscii(uint64_t half, char *to) {
  uint64_t units = (half | half << 16) & 0x0000FFFF0000FFFF;
  units = (units | units << 8) & 0x00FF00FF00FF00FF;
  memcpy(to, &units, sizeof units);
  return to + sizeof units;
}

char *WidenCharacters(Place at, const char *end) {
  auto [p, to] = at;
  while (p < end) {
    const uint64_t word = end - p < kCodeSetWord ? UINT64_MAX : CodeSetLoadWord(p);
    if (CodeSetTopBits(word) == 0) {
      to = PutAscii(word >> 32, PutAscii(word & UINT32_MAX, to));
      p += kCodeSetWord;
    } else {
      uint32_t c = 0;
      p += CodeSetDecode(p, end, &c);
      to = PutUtf16(c, to);
    }
  }
  return to;
}

#ifdef __x86_64__

// What to do with the first characters of a window of nine bytes, given a set of bits that tells
// which of the bytes end a character: up to four characters of at most three bytes each.
struct Spread {
  alignas(kVector) Shuffle shuffle;  // a lane for each character, its last byte lowest
  uint8_t bytes, characters;         // how many
};

constexpr unsigned kWindow = 9;

constexpr Spread MakeSpread(unsigned ends) {
  Spread spread{};
  spread.shuffle.fill(kZero);
  for (unsigned last = 0; last < kWindow && spread.characters < kLanes; last++) {
    const unsigned length = last + 1 - spread.bytes;
    if (length > 3) break;
    if ((ends >> last & 1) == 0) continue;
    for (unsigned i = 0; i < length; i++) {
      spread.shuffle[spread.characters * kLanes + i] = static_cast<uint8_t>(last - i);
    }
    spread.characters++;
    spread.bytes = static_cast<uint8_t>(last + 1);
  }
  return spread;
}

constexpr auto MakeSpreads() {
  std::array<Spread, 1 << kWindow> spreads{};
  for (unsigned ends = 0; ends < spreads.size(); ends++) spreads[ends] = MakeSpread(ends);
  return spreads;
}

constexpr auto kSpreads = MakeSpreads();

// Which bytes of a block end a character, a bit each.  The byte after the block is looked at, too.
uint64_t CharacterEnds(const char *block) {
  constexpr char kLastTail = static_cast<char>(0xBF);
  uint64_t ends = 0;
  for (ptrdiff_t i = 0; i < kBlock; i += kVector) {
    const __m128i begins = _mm_cmpgt_epi8(Load(block + i + 1), _mm_set1_epi8(kLastTail));
    ends |= static_cast<uint64_t>(_mm_movemask_epi8(begins)) << i;
  }
  return ends;
}

// Converts the characters of a block, up to those for which its last bytes are no whole window.
[[gnu::target("ssse3")]] Place WidenBlock(const char *block, char *to) {
  constexpr Shuffle kLowHalves = {0,     1,     4,     5,     8,     9,     12,    13,
                                  kZero, kZero, kZero, kZero, kZero, kZero, kZero, kZero};
  const char *p = block;
  uint64_t ends = CharacterEnds(block);
  while (p <= block + kBlock - kWindow) {
    const Spread &spread = kSpreads[ends % kSpreads.size()];
    if (spread.characters == 0) {
      uint32_t c = 0;
      const size_t length = CodeSetDecode(p, p + 4, &c);
      to = PutUtf16(c, to);
      p += length;
      ends >>= length;
      continue;
    }
    const __m128i bytes = _mm_shuffle_epi8(Load(p), Load(&spread.shuffle));
    const __m128i low = _mm_and_si128(bytes, AllLanes(0x7F));
    const __m128i middle = _mm_and_si128(_mm_srli_epi32(bytes, 2), AllLanes(0xFC0));
    const __m128i high = _mm_and_si128(_mm_srli_epi32(bytes, 4), AllLanes(0xF000));
    const __m128i characters = _mm_or_si128(_mm_or_si128(low, middle), high);
    Store(_mm_shuffle_epi8(characters, Load(&kLowHalves)), to);
    p += spread.bytes;
    to += spread.characters * kUnit;
    ends >>= spread.bytes;
  }
  return {p, to};
}

bool IsAsciiBlock(const char *block) {
  const __m128i half = _mm_or_si128(Load(block), Load(block + kVector));
  const __m128i otherHalf = _mm_or_si128(Load(block + 2 * kVector), Load(block + 3 * kVector));
  return _mm_movemask_epi8(_mm_or_si128(half, otherHalf)) == 0;
}

Place WidenAsciiBlock(const char *block, char *to) {
  const __m128i zero = _mm_setzero_si128();
  for (ptrdiff_t i = 0; i < kBlock; i += kVector, to += kUnit * kVector) {
    Store(_mm_unpacklo_epi8(Load(block + i), zero), to);
    Store(_mm_unpackhi_epi8(Load(block + i), zero), to + kVector);
  }
  return {block + kBlock, to};
}

// Leaves a rest of less than a block and a vector: a window near the end of a block is loaded as a
// vector.  Stores stay in the room for what is left of the text.
Place WidenBlocks(Place at, const char *end) {
  while (end - at.from >= kBlock + kVector) {
    at = IsAsciiBlock(at.from) ? WidenAsciiBlock(at.from, at.to) : WidenBlock(at.from, at.to);
  }
  return at;
}

#endif

// ---- to UTF-8 --------------------------------------------------------------------------------

// Converts the characters that begin before `stop`; there is no place when one is not well-formed.
// Runs of short and of long ones have loops of their own, which makes branches easier to predict.
template <std::endian order>
Place EncodeCharacters(Place at, const char *stop, const char *end) {
  constexpr uint32_t kFirstLong = 0x800;
  auto [p, to] = at;
  uint32_t c;
  while (p < stop) {
    while (p < stop && CodeSetLoadUnit<order>(p) >= kFirstLong) {
      if (!CodeSetTakeUtf16<order>(&p, end, &c)) return {};
      to = Utf8_Encode(c, to);
    }
    for (; p < stop && (c = CodeSetLoadUnit<order>(p)) < kFirstLong; p += kUnit) {
      to = Utf8_Encode(c, to);
    }
  }
  return {p, to};
}

#ifdef __x86_64__

// What to do with four characters in lanes of four bytes, given their lengths: of the eight bits the
// lower four tell which characters have one byte, the upper four which have one or two.
struct Squeeze {
  alignas(kVector) Shuffle shuffle;
  uint8_t bytes;  // how many the four have together
};

constexpr Squeeze MakeSqueeze(unsigned lengths) {
  Squeeze squeeze{};
  squeeze.shuffle.fill(kZero);
  for (unsigned lane = 0; lane < kLanes; lane++) {
    const unsigned length = 3 - (lengths >> lane & 1) - (lengths >> lane >> kLanes & 1);
    for (unsigned i = 0; i < length; i++) {
      squeeze.shuffle[squeeze.bytes++] = static_cast<uint8_t>(lane * kLanes + i);
    }
  }
  return squeeze;
}

constexpr auto MakeSqueezes() {
  std::array<Squeeze, 1 << 2 * kLanes> squeezes{};
  for (unsigned i = 0; i < squeezes.size(); i++) squeezes[i] = MakeSqueeze(i);
  return squeezes;
}

constexpr auto kSqueezes = MakeSqueezes();

__m128i Choose(__m128i mask, __m128i yes, __m128i no) {
  return _mm_or_si128(_mm_and_si128(mask, yes), _mm_andnot_si128(mask, no));
}

unsigned LaneBits(__m128i mask) {
  return static_cast<unsigned>(_mm_movemask_ps(_mm_castsi128_ps(mask)));
}

// Four characters below U+10000, a lane each.
[[gnu::target("ssse3")]] char *EncodeLanes(__m128i c, char *to) {
  const __m128i tail1 = _mm_and_si128(_mm_slli_epi32(c, 2), AllLanes(0x3F00));
  const __m128i tail2 = _mm_and_si128(_mm_slli_epi32(c, 16), AllLanes(0x3F0000));
  const __m128i bits = _mm_or_si128(_mm_srli_epi32(c, 12), _mm_or_si128(tail1, tail2));
  const __m128i three = _mm_or_si128(bits, AllLanes(0x8080E0));
  const __m128i two = _mm_or_si128(_mm_srli_epi32(three, 8), AllLanes(0x40));
  const __m128i isShort = _mm_cmplt_epi32(c, AllLanes(0x800));
  const __m128i isAscii = _mm_cmplt_epi32(c, AllLanes(0x80));
  const __m128i encoded = Choose(isAscii, c, Choose(isShort, two, three));
  const Squeeze &squeeze = kSqueezes[LaneBits(isAscii) | LaneBits(isShort) << kLanes];
  Store(_mm_shuffle_epi8(encoded, Load(&squeeze.shuffle)), to);
  return to + squeeze.bytes;
}

template <std::endian order>
__m128i LoadUnits(const char *p) {
  const __m128i units = Load(p);
  if (order == std::endian::little) return units;
  return _mm_or_si128(_mm_slli_epi16(units, 8), _mm_srli_epi16(units, 8));
}

bool HaveSurrogate(__m128i units) {
  const __m128i top = _mm_srli_epi16(units, 11);
  return _mm_movemask_epi8(_mm_cmpeq_epi16(top, _mm_set1_epi16(0xD800 >> 11))) != 0;
}

bool AreAscii(__m128i units) {
  const __m128i low = _mm_and_si128(units, _mm_set1_epi16(0x7F));
  return _mm_movemask_epi8(_mm_cmpeq_epi16(low, units)) == 0xFFFF;
}

// Leaves a rest of less than ten units.  These have room for 30 bytes: a step of eight stores two
// vectors whole, of which the second begins after up to 12 bytes.
template <std::endian order>
[[gnu::target("ssse3")]] Place EncodeVectors(Place at, const char *end) {
  while (at.from != nullptr && end - at.from >= 10 * kUnit) {
    const __m128i units = LoadUnits<order>(at.from);
    if (HaveSurrogate(units)) {
      at = EncodeCharacters<order>(at, at.from + std::min(end - at.from, kBlock), end);
      continue;
    }
    if (AreAscii(units)) {
      Store(_mm_packus_epi16(units, units), at.to);
      at.to += kVector / kUnit;
    } else {
      at.to = EncodeLanes(_mm_unpacklo_epi16(units, _mm_setzero_si128()), at.to);
      at.to = EncodeLanes(_mm_unpackhi_epi16(units, _mm_setzero_si128()), at.to);
    }
    at.from += kVector;
  }
  return at;
}

#endif

}  // namespace

// ---- both ways -------------------------------------------------------------------------------

char *CodeSetUtf8ToUtf16le(std::string_view text, char *to) {
  const char *const end = text.data() + text.size();
  Place at = {text.data(), to};
#ifdef __x86_64__
  if (CodeSetHasSsse3()) at = WidenBlocks(at, end);
#endif
  return WidenCharacters(at, end);
}

template <std::endian order>
char *CodeSetUtf16ToUtf8(std::string_view text, char *to) {
  if (text.size() % kUnit != 0) return nullptr;
  const char *const end = text.data() + text.size();
  Place at = {text.data(), to};
#ifdef __x86_64__
  if (CodeSetHasSsse3()) at = EncodeVectors<order>(at, end);
  if (at.from == nullptr) return nullptr;
#endif
  return EncodeCharacters<order>(at, end, end).to;
}

template char *CodeSetUtf16ToUtf8<std::endian::little>(std::string_view, char *);
template char *CodeSetUtf16ToUtf8<std::endian::big>(std::string_view, char *);
