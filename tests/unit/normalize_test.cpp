// normalize_test.cpp -- normalisation by both hosts' code: that of macOS on a stand-in for its
// framework, which normalises with that of Linux.

#include <gtest/gtest.h>

#include <string>

#include "codeset.h"
#include "dynbuf.h"
#include "tests/support/darwin/frameworks.h"

namespace {

TEST(Normalize, GoesToBothFormsUnlessACallFailsAndLeaksNothing) {
  const std::string rows[][3] = {
      {"caf\xC3\xA9 cafe\xCC\x81", "caf\xC3\xA9 caf\xC3\xA9", "cafe\xCC\x81 cafe\xCC\x81"},
      {"\xEA\xB0\x81", "\xEA\xB0\x81", "\xE1\x84\x80\xE1\x85\xA1\xE1\x86\xA8"},  // Hangul
      {"a\xCC\x82\xCC\xA3", "\xE1\xBA\xAD", "a\xCC\xA3\xCC\x82"},                // marks in order
      {"\xF0\x9D\x85\x9E", "\xF0\x9D\x85\x97\xF0\x9D\x85\xA5", "\xF0\x9D\x85\x97\xF0\x9D\x85\xA5"},
  };
  constexpr int kCalls = 4;
  for (const auto &[in, composed, decomposed] : rows) {
    for (int nth = 1; nth <= kCalls + 1; nth++) {
      frameworks = {.callsToFailure = nth};
      ScopedDynBuf out;
      EXPECT_EQ(nth > kCalls, CodeSet_Utf8Normalize(in.c_str(), true, &out));
      EXPECT_EQ(nth > kCalls ? composed : "", std::string(out.data, out.size));
      EXPECT_EQ(0, frameworks.liveObjects);
    }
    frameworks = {};
    ScopedDynBuf out;
    ASSERT_TRUE(CodeSet_Utf8Normalize(in.c_str(), false, &out));
    EXPECT_EQ(decomposed, std::string(out.data, out.size));
  }
  ScopedDynBuf out;
  EXPECT_FALSE(CodeSet_Utf8Normalize("a\xC3", true, &out));
}

}  // namespace
