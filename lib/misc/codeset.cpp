// codeset.cpp -- UTF-8: decoding a character, checking a text, and the current encoding.

// Checking runs a state machine over the bytes: each byte has a class, and the class leads from one
// state to the next.  A text is well-formed when the machine ends in the state it began in.  The
// machine knows what decoding alone does not: after E0, ED, F0 and F4 only part of the continuation
// bytes may follow, which keeps out over-long forms, surrogates and values above U+10FFFF.

#include "codeset.h"

#include <array>
#include <cstring>

#include "heap.h"

namespace {

// ---- the state machine -----------------------------------------------------------------------

enum ByteClass : uint8_t {
  kAscii,
  kTail80,  // 80..8F, 90..9F and A0..BF are told apart for the sake of the four special leads
  kTail90,
  kTailA0,
  kLead2,
  kLeadE0,
  kLead3,
  kLeadED,
  kLeadF0,
  kLead4,
  kLeadF4,
  kNever,
  kNumClasses,
};

enum State : uint8_t {
  kDone,  // between two characters; the only accepting state
  kBad,   // never left
  kNeed1,
  kNeed2,
  kNeed3,
  kAfterE0,
  kAfterED,
  kAfterF0,
  kAfterF4,
  kNumStates,
};

struct ByteRange {
  uint8_t first, last;
  ByteClass byteClass;
};

// clang-format off
constexpr ByteRange kByteRanges[] = {
    {0x00, 0x7F, kAscii},
    {0x80, 0x8F, kTail80},
    {0x90, 0x9F, kTail90},
    {0xA0, 0xBF, kTailA0},
    {0xC0, 0xC1, kNever},
    {0xC2, 0xDF, kLead2},
    {0xE0, 0xE0, kLeadE0},
    {0xE1, 0xEC, kLead3},
    {0xED, 0xED, kLeadED},
    {0xEE, 0xEF, kLead3},
    {0xF0, 0xF0, kLeadF0},
    {0xF1, 0xF3, kLead4},
    {0xF4, 0xF4, kLeadF4},
    {0xF5, 0xFF, kNever},
};
// clang-format on

constexpr std::array<ByteClass, 256> MakeByteClasses() {
  std::array<ByteClass, 256> classes{};
  for (const ByteRange &range : kByteRanges) {
    for (unsigned byte = range.first; byte <= range.last; byte++) classes[byte] = range.byteClass;
  }
  return classes;
}

constexpr std::array<ByteClass, 256> kByteClasses = MakeByteClasses();

struct Step {
  State from;
  ByteClass byteClass;
  State to;
};

// Unicode, table 3-7.  Whatever is not here leads to kBad.
// clang-format off
constexpr Step kSteps[] = {
    {kDone,    kAscii,  kDone},
    {kDone,    kLead2,  kNeed1},
    {kDone,    kLeadE0, kAfterE0},
    {kDone,    kLead3,  kNeed2},
    {kDone,    kLeadED, kAfterED},
    {kDone,    kLeadF0, kAfterF0},
    {kDone,    kLead4,  kNeed3},
    {kDone,    kLeadF4, kAfterF4},
    {kAfterE0, kTailA0, kNeed1},  // from U+0800: below is over-long
    {kAfterED, kTail80, kNeed1},  // to U+D7FF: above are the surrogates
    {kAfterED, kTail90, kNeed1},
    {kAfterF0, kTail90, kNeed2},  // from U+10000: below is over-long
    {kAfterF0, kTailA0, kNeed2},
    {kAfterF4, kTail80, kNeed2},  // to U+10FFFF
    {kNeed3,   kTail80, kNeed2},
    {kNeed3,   kTail90, kNeed2},
    {kNeed3,   kTailA0, kNeed2},
    {kNeed2,   kTail80, kNeed1},
    {kNeed2,   kTail90, kNeed1},
    {kNeed2,   kTailA0, kNeed1},
    {kNeed1,   kTail80, kDone},
    {kNeed1,   kTail90, kDone},
    {kNeed1,   kTailA0, kDone},
};
// clang-format on

using Transitions = std::array<std::array<State, kNumClasses>, kNumStates>;

constexpr Transitions MakeTransitions() {
  Transitions next{};
  for (auto &row : next) row.fill(kBad);
  for (const Step &step : kSteps) next[step.from][step.byteClass] = step.to;
  return next;
}

constexpr Transitions kNext = MakeTransitions();

// ---- the current encoding --------------------------------------------------------------------

// Ends a text in every encoding, also where a unit has four bytes.
constexpr size_t kTerminatorSize = 4;

bool CopyValidUtf8(const char *bytes, size_t length, char **out, size_t *outLength) {
  if (!CodeSet_IsValidUTF8(bytes, length)) return false;
  const auto copy = static_cast<char *>(Heap_SafeMalloc(length + kTerminatorSize));
  if (length > 0) memcpy(copy, bytes, length);
  memset(copy + length, 0, kTerminatorSize);
  if (outLength != nullptr) *outLength = length;
  *out = copy;
  return true;
}

}  // namespace

size_t CodeSet_GetUtf8(const char *p, const char *end, uint32_t *codePoint) {
  // The smallest value that needs a sequence of the length that is the index.
  static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};

  if (p >= end) return 0;
  const auto lead = static_cast<uint8_t>(*p);
  if (lead < 0x80) {
    *codePoint = lead;
    return 1;
  }
  if (lead < 0xC2 || lead > 0xF4) return 0;
  const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (static_cast<size_t>(end - p) < length) return 0;

  uint32_t value = lead & (0x7FU >> length);
  for (size_t i = 1; i < length; i++) {
    const auto tail = static_cast<uint8_t>(p[i]);
    if ((tail & 0xC0) != 0x80) return 0;
    value = value << 6 | (tail & 0x3FU);
  }
  if (value < kSmallest[length]) return 0;
  *codePoint = value;
  return length;
}

bool CodeSet_IsValidUTF8(const char *string) {
  return CodeSet_IsValidUTF8(string, strlen(string));
}

bool CodeSet_IsValidUTF8(const char *bytes, size_t length) {
  State state = kDone;
  for (size_t i = 0; i < length; i++)
    state = kNext[state][kByteClasses[static_cast<uint8_t>(bytes[i])]];
  return state == kDone;
}

bool CodeSet_Utf8ToCurrent(const char *bytes, size_t length, char **out, size_t *outLength) {
  return CopyValidUtf8(bytes, length, out, outLength);
}

bool CodeSet_CurrentToUtf8(const char *bytes, size_t length, char **out, size_t *outLength) {
  return CopyValidUtf8(bytes, length, out, outLength);
}
