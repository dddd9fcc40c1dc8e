// unicodeCaseFold.cpp -- simple case folding from a table of ranges.
//
// ICU has a function for this, but a comparison must work in programs without ICU, so the data
// stand here.  Letters come in runs with the same distance to their folding, or in pairs where
// every other one folds to the next: 1500 foldings are 202 rows of 16 bytes, searched in 8 steps.
// A two-stage table over all planes would need no search and several times the space.
// tests/unit/unicode_test.cpp compares every code point with ICU.

#include "lib/unicode/unicodeCaseFold.h"

#include <algorithm>
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

}  // namespace

uint32_t UnicodeSimpleCaseFold(uint32_t codePoint) {
  const Row *const row = std::ranges::lower_bound(kRows, codePoint, std::less<>(), &Row::last);
  if (row == std::end(kRows) || codePoint < row->first) return codePoint;
  if ((codePoint - row->first) % row->step != 0) return codePoint;
  return codePoint + static_cast<uint32_t>(row->delta);
}
