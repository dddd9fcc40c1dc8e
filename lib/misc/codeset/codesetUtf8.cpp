// codesetUtf8.cpp -- UTF-8: decoding a character, and checking a text.
//
// Checking runs a state machine over the bytes: each byte has a class, and the class leads from one
// state to the next.  A text is well-formed when the machine ends in the state it began in.  The
// machine knows what decoding alone does not: after E0, ED, F0 and F4 only part of the continuation
// bytes may follow, which keeps out over-long forms, surrogates and values above U+10FFFF.
//
// Two things make it fast; bench/codeset_bench.cpp shows by how much.
//   - While the machine rests between characters, runs of ASCII are skipped without it.
//   - Each state waits for the one before, so one machine leaves most of the processor idle.  Long
//     stretches are cut into four lanes at the beginnings of characters, and four machines run side
//     by side.

#include "lib/misc/codeset/codesetUtf8.h"

#include <array>

#include "lib/public/codeset.h"

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

// ---- the machine, as it runs -----------------------------------------------------------------

// For each byte all next states side by side in one word, six bits for each state, which is itself
// where its six bits begin.  A step is one look-up, which does not wait for the state, and a shift.
constexpr uint64_t kStateBits = 6;
static_assert(kNumStates * kStateBits <= 64);

using Shifts = std::array<uint64_t, 256>;

constexpr Shifts MakeShifts() {
  Shifts shifts{};
  for (size_t byte = 0; byte < shifts.size(); byte++) {
    for (unsigned state = 0; state < kNumStates; state++) {
      const uint64_t next = kNext[state][kByteClasses[byte]] * kStateBits;
      shifts[byte] |= next << (state * kStateBits);
    }
  }
  return shifts;
}

constexpr Shifts kShifts = MakeShifts();

class Machine {
  uint64_t state_ = kDone * kStateBits;  // the bits above the lowest six do not matter

 public:
  void Step(char byte) {
    state_ = kShifts[static_cast<uint8_t>(byte)] >> (state_ % (1U << kStateBits));
  }
  void Run(const char *p, const char *end) {
    for (; p < end; p++) Step(*p);
  }
  bool Accepts() const { return state_ % (1U << kStateBits) == kDone * kStateBits; }
};

// ---- runs of ASCII ---------------------------------------------------------------------------

// 16 bytes at once; g++ and clang turn it into what the processor has.
using Wide = uint64_t __attribute__((vector_size(16)));
constexpr ptrdiff_t kStretch = 8 * sizeof(Wide);

Wide LoadWide(const char *p) {
  Wide wide;
  memcpy(&wide, p, sizeof wide);
  return wide;
}

Wide OrOfFour(const char *p) {
  return (LoadWide(p) | LoadWide(p + 16)) | (LoadWide(p + 32) | LoadWide(p + 48));
}

const char *SkipAscii(const char *p, const char *end) {
  for (; end - p >= kStretch; p += kStretch) {
    const Wide any = OrOfFour(p) | OrOfFour(p + kStretch / 2);
    if (CodeSetTopBits(any[0] | any[1]) != 0) break;
  }
  for (; end - p >= kCodeSetWord; p += kCodeSetWord) {
    if (CodeSetTopBits(CodeSetLoadWord(p)) != 0) break;
  }
  return p;
}

// ---- four lanes ------------------------------------------------------------------------------

constexpr int kLanes = 4;
constexpr ptrdiff_t kLane = 64;
constexpr ptrdiff_t kMaxTails = 3;

// Where the character begins that has the byte at `p`, if it is one.
const char *CharacterBegin(const char *p) {
  for (ptrdiff_t i = 0; i < kMaxTails && (*p & 0xC0) == 0x80; i++) p--;
  return p;
}

// Checks the characters that begin and end within the next kLanes * kLane bytes, at least.  Returns
// where the next one begins; null when something was wrong.
const char *CheckLanes(const char *p) {
  const char *begin[kLanes + 1] = {p};
  for (int i = 1; i <= kLanes; i++) begin[i] = CharacterBegin(p + i * kLane);

  // Written out: in an array the states would live in memory, and the lanes gain nothing.
  Machine a, b, c, d;
  for (ptrdiff_t at = 0; at < kLane - kMaxTails; at++) {
    a.Step(begin[0][at]);
    b.Step(begin[1][at]);
    c.Step(begin[2][at]);
    d.Step(begin[3][at]);
  }
  a.Run(begin[0] + kLane - kMaxTails, begin[1]);
  b.Run(begin[1] + kLane - kMaxTails, begin[2]);
  c.Run(begin[2] + kLane - kMaxTails, begin[3]);
  d.Run(begin[3] + kLane - kMaxTails, begin[4]);
  return a.Accepts() && b.Accepts() && c.Accepts() && d.Accepts() ? begin[kLanes] : nullptr;
}

}  // namespace

size_t CodeSet_GetUtf8(const char *p, const char *end, uint32_t *codePoint) {
  return CodeSetDecode(p, end, codePoint);
}

bool CodeSet_IsValidUTF8(const char *string) {
  return CodeSet_IsValidUTF8(string, strlen(string));
}

bool CodeSet_IsValidUTF8(const char *bytes, size_t length) {
  const char *p = bytes;
  const char *const end = bytes + length;
  // The byte at the end of the last lane is looked at, hence "greater".
  while ((p = SkipAscii(p, end)), end - p > kLanes * kLane) {
    p = CheckLanes(p);
    if (p == nullptr) return false;
  }
  Machine machine;
  machine.Run(p, end);
  return machine.Accepts();
}
