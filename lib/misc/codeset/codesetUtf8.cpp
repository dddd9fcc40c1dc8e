// codesetUtf8.cpp -- UTF-8: decoding a character, and checking a text.
//
// There are two ways to check a text, and they agree on every text:
//   by a state machine  Each byte belongs to a class, and the class leads from one state to the
//                       next.  The text is well-formed if the machine ends where it started.
//   by vectors          16 bytes at a time, where the processor has SSSE3: J. Keiser and D. Lemire,
//                       "Validating UTF-8 in less than one instruction per byte" (2021).
// Tests: tests/unit/codeset_test.cpp compares the two with each other and with ICU.
// Speed: bench/codeset_bench.cpp

#include "lib/misc/codeset/codesetUtf8.h"

#include <algorithm>
#include <array>

#include "lib/public/codeset.h"

#ifdef __x86_64__
#include <tmmintrin.h>
#endif

// ---- by a state machine ----------------------------------------------------------------------

namespace {

// The first byte of each class, in order: a class ends where the next one begins.
constexpr std::array<uint8_t, 14> kClassBegins = {0x00, 0x80, 0x90, 0xA0, 0xC0, 0xC2, 0xE0,
                                                  0xE1, 0xED, 0xEE, 0xF0, 0xF1, 0xF4, 0xF5};

constexpr std::array<uint8_t, 256> MakeClasses() {
  std::array<uint8_t, 256> classes{};
  for (unsigned byte = 0; byte < classes.size(); byte++) {
    const auto next = std::ranges::upper_bound(kClassBegins, byte);
    classes[byte] = static_cast<uint8_t>(next - kClassBegins.begin() - 1);
  }
  return classes;
}

constexpr auto kClasses = MakeClasses();

// ok: between two characters, the first and the only accepting state; t1, t2, t3: as many
// continuation bytes are missing; E0, ED, F0, F4: after this lead byte, which not all continuation
// bytes may follow; no: never left.
enum State : uint8_t { ok, t1, t2, t3, E0, ED, F0, F4, no };

// Unicode, table 3-7.  Over-long forms end after E0 and F0, surrogates after ED, and values above
// U+10FFFF after F4.
// clang-format off
constexpr State kNext[][kClassBegins.size()] = {
    //        00  80  90  A0  C0  C2  E0  E1  ED  EE  F0  F1  F4  F5
    /* ok */ {ok, no, no, no, no, t1, E0, t2, ED, t2, F0, t3, F4, no},
    /* t1 */ {no, ok, ok, ok, no, no, no, no, no, no, no, no, no, no},
    /* t2 */ {no, t1, t1, t1, no, no, no, no, no, no, no, no, no, no},
    /* t3 */ {no, t2, t2, t2, no, no, no, no, no, no, no, no, no, no},
    /* E0 */ {no, no, no, t1, no, no, no, no, no, no, no, no, no, no},
    /* ED */ {no, t1, t1, no, no, no, no, no, no, no, no, no, no, no},
    /* F0 */ {no, no, t2, t2, no, no, no, no, no, no, no, no, no, no},
    /* F4 */ {no, t2, no, no, no, no, no, no, no, no, no, no, no, no},
    /* no */ {no, no, no, no, no, no, no, no, no, no, no, no, no, no},
};
// clang-format on

}  // namespace

bool CodeSetUtf8DfaAccepts(const char *p, const char *end) {
  State state = ok;
  while (p < end) {
    if (state == ok) p = CodeSetSkipAscii(p, end);
    if (p < end) state = kNext[state][kClasses[static_cast<uint8_t>(*p++)]];
  }
  return state == ok;
}

// ---- by vectors ------------------------------------------------------------------------------

#ifdef __x86_64__

namespace {

// A kind of two bytes in a row: sets of nibbles, in which bit n stands for nibble n.  Two bytes are
// of the kind if the halves of the first byte and the upper half of the second are in these sets.
struct Pair {
  uint16_t firstHigh, firstLow, secondHigh;
};

// All kinds but the last are wrong wherever they occur.
constexpr std::array<Pair, 8> kPairs = {{
    {0xF000, 0xFFFF, 0xF0FF},  // a lead byte without a continuation
    {0x00FF, 0xFFFF, 0x0F00},  // ASCII, then a continuation
    {0x1000, 0x0003, 0x0F00},  // C0 or C1: over-long
    {0x4000, 0x0001, 0x0300},  // E0 80..9F: over-long
    {0x4000, 0x2000, 0x0C00},  // ED A0..BF: a surrogate
    {0x8000, 0xFFF0, 0x0E00},  // F4 90..BF and F5..FF: above U+10FFFF
    {0x8000, 0xFFE1, 0x0100},  // F0 80..8F: over-long; F5..FF: above U+10FFFF
    {0x0F00, 0xFFFF, 0x0F00},  // two continuations: right after a lead of three or four bytes
}};
constexpr uint8_t kTwoTails = 1 << 7;

// For each nibble a bit for each kind that has it in its set.
using KindsByNibble = std::array<uint8_t, 16>;

constexpr KindsByNibble MakeKinds(uint16_t Pair::*set) {
  KindsByNibble kinds{};
  for (unsigned nibble = 0; nibble < kinds.size(); nibble++) {
    for (unsigned kind = 0; kind < kPairs.size(); kind++) {
      const unsigned isIn = (kPairs[kind].*set >> nibble) & 1;
      kinds[nibble] = static_cast<uint8_t>(kinds[nibble] | isIn << kind);
    }
  }
  return kinds;
}

constexpr KindsByNibble kFirstHigh = MakeKinds(&Pair::firstHigh);
constexpr KindsByNibble kFirstLow = MakeKinds(&Pair::firstLow);
constexpr KindsByNibble kSecondHigh = MakeKinds(&Pair::secondHigh);

constexpr ptrdiff_t kBlock = sizeof(__m128i);

__m128i Load(const void *p) {
  return _mm_loadu_si128(static_cast<const __m128i *>(p));
}

[[gnu::target("ssse3")]] __m128i KindsOf(__m128i nibbles, const KindsByNibble &kinds) {
  return _mm_shuffle_epi8(Load(&kinds), nibbles);
}

__m128i LowNibbles(__m128i bytes) {
  return _mm_and_si128(bytes, _mm_set1_epi8(0x0F));
}

__m128i HighNibbles(__m128i bytes) {
  return LowNibbles(_mm_srli_epi16(bytes, 4));
}

// Zero if nothing is wrong in a block, given the block before it.  A character that is incomplete at
// the end of the block is left to the check of the next one.
[[gnu::target("ssse3")]] __m128i ErrorsIn(__m128i block, __m128i before) {
  const __m128i previous1 = _mm_alignr_epi8(block, before, kBlock - 1);
  const __m128i previous2 = _mm_alignr_epi8(block, before, kBlock - 2);
  const __m128i previous3 = _mm_alignr_epi8(block, before, kBlock - 3);
  const __m128i firstKinds = _mm_and_si128(KindsOf(HighNibbles(previous1), kFirstHigh),
                                           KindsOf(LowNibbles(previous1), kFirstLow));
  const __m128i kinds = _mm_and_si128(firstKinds, KindsOf(HighNibbles(block), kSecondHigh));
  // The top bits remain where the byte two places before is E0 or above, or the byte three places
  // before is F0 or above: there, and only there, this byte and the one before are continuations.
  const __m128i isThird = _mm_subs_epu8(previous2, _mm_set1_epi8(0xE0 - kTwoTails));
  const __m128i isFourth = _mm_subs_epu8(previous3, _mm_set1_epi8(0xF0 - kTwoTails));
  const __m128i twoTailsDue =
      _mm_and_si128(_mm_or_si128(isThird, isFourth), _mm_set1_epi8(static_cast<char>(kTwoTails)));
  return _mm_xor_si128(twoTailsDue, kinds);
}

[[gnu::target("ssse3")]] bool VectorsAccept(const char *p, const char *end) {
  __m128i before = _mm_setzero_si128();
  __m128i errors = _mm_setzero_si128();
  for (; end - p >= 4 * kBlock; p += 4 * kBlock) {
    const __m128i a = Load(p), b = Load(p + kBlock), c = Load(p + 2 * kBlock),
                  d = Load(p + 3 * kBlock);
    const __m128i any = _mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d));
    if (_mm_movemask_epi8(_mm_or_si128(any, before)) == 0) continue;  // nothing but ASCII
    errors = _mm_or_si128(errors, _mm_or_si128(ErrorsIn(a, before), ErrorsIn(b, a)));
    errors = _mm_or_si128(errors, _mm_or_si128(ErrorsIn(c, b), ErrorsIn(d, c)));
    before = d;
  }
  for (; end - p >= kBlock; p += kBlock) {
    const __m128i block = Load(p);
    errors = _mm_or_si128(errors, ErrorsIn(block, before));
    before = block;
  }
  // At least one zero follows the last byte, so a character that is cut off there is an error.
  char rest[kBlock] = {};
  memcpy(rest, p, static_cast<size_t>(end - p));
  errors = _mm_or_si128(errors, ErrorsIn(Load(rest), before));
  return _mm_movemask_epi8(_mm_cmpeq_epi8(errors, _mm_setzero_si128())) == 0xFFFF;
}

}  // namespace

#endif

// ---- the public procedures ---------------------------------------------------------------------------

size_t CodeSet_GetUtf8(const char *p, const char *end, uint32_t *codePoint) {
  return CodeSetDecode(p, end, codePoint);
}

bool CodeSet_IsValidUTF8(const char *string) {
  return CodeSet_IsValidUTF8(string, strlen(string));
}

bool CodeSet_IsValidUTF8(const char *bytes, size_t length) {
#ifdef __x86_64__
  if (CodeSetHasSsse3()) return VectorsAccept(bytes, bytes + length);
#endif
  return CodeSetUtf8DfaAccepts(bytes, bytes + length);
}
