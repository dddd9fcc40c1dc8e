// unicodeCaseFold.cpp -- simple case folding from a table of ranges.
//
// ICU has a function for this, but comparisons must work in programs without ICU, so the data are
// here.  Letters come in runs with the same distance to their foldings, or in pairs of which each
// first letter folds to the second: 1500 foldings are 202 rows of 16 bytes, searched in 8 steps.
// A two-stage table over all planes would need no search and several times the space; the letters of
// Latin, Greek, Cyrillic and Armenian, which most comparisons meet, have a table of 3 KB.
// Tests: tests/unit/unicode_test.cpp compares every code point with ICU.

#include "lib/unicode/unicodeCaseFold.h"

#include <algorithm>
#include <array>
#include <functional>
#include <iterator>

namespace {

struct Row {
  uint32_t first, last;
  uint32_t step;
  int32_t delta;
};

constexpr Row kRows[] = {
#include "lib/unicode/caseFolding.inc"
};

static_assert(std::ranges::adjacent_find(kRows, [](const Row &a, const Row &b) {
                return a.last >= b.first;
              }) == std::end(kRows));
static_assert(std::ranges::all_of(kRows, [](const Row &row) {
  return row.first <= row.last && (row.last - row.first) % row.step == 0;
}));

constexpr uint32_t Search(uint32_t codePoint) {
  const Row *const row = std::ranges::lower_bound(kRows, codePoint, std::less<>(), &Row::last);
  if (row == std::end(kRows) || codePoint < row->first) return codePoint;
  if ((codePoint - row->first) % row->step != 0) return codePoint;
  return codePoint + static_cast<uint32_t>(row->delta);
}

constexpr auto MakeFoldings() {
  std::array<uint16_t, 0x590> foldings{};
  for (uint32_t c = 0; c < foldings.size(); c++) foldings[c] = static_cast<uint16_t>(Search(c));
  return foldings;
}

constexpr auto kFoldings = MakeFoldings();

}  // namespace

uint32_t UnicodeSimpleCaseFold(uint32_t codePoint) {
  return codePoint < kFoldings.size() ? kFoldings[codePoint] : Search(codePoint);
}
