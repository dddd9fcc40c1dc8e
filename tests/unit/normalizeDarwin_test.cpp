// normalizeDarwin_test.cpp -- the macOS side of normalisation releases what it creates, whatever
// fails.  What it makes of texts is tested by normalize_test.cpp, of which this is a part.

#include <gtest/gtest.h>

#include <string>

#include "platform/unicodeNormalize.h"
#include "tests/support/darwin/frameworks.h"

namespace {

TEST(NormalizeDarwin, LeaksNothingWhateverFails) {
  constexpr int kCalls = 4;
  for (int nth = 1; nth <= kCalls + 1; nth++) {
    frameworks = {.callsToFailure = nth};
    const HeapStr result = Platform_NormalizeUnicode("e\xCC\x81", true);
    EXPECT_EQ(nth > kCalls ? "\xC3\xA9" : "", std::string(result == nullptr ? "" : result.get()));
    EXPECT_EQ(0, frameworks.liveObjects);
  }
  frameworks = {};
}

}  // namespace
