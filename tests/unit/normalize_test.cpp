// normalize_test.cpp -- normalisation, with this host's platform code or the other's.

#include <gtest/gtest.h>

#include <string>

#include "codeset.h"
#include "dynbuf.h"

namespace {

TEST(Normalize, GoesToBothForms) {
  const struct {
    std::string in, composed, decomposed;
  } rows[] = {
      {"", "", ""},
      {"caf\xC3\xA9 cafe\xCC\x81", "caf\xC3\xA9 caf\xC3\xA9", "cafe\xCC\x81 cafe\xCC\x81"},
      {"\xEA\xB0\x81", "\xEA\xB0\x81", "\xE1\x84\x80\xE1\x85\xA1\xE1\x86\xA8"},  // Hangul
      // Marks in order.
      {"a\xCC\x82\xCC\xA3", "\xE1\xBA\xAD", "a\xCC\xA3\xCC\x82"},
      {"\xE2\x84\xAB", "\xC3\x85", "A\xCC\x8A"},         // the Angstrom sign does not come back
      {"\xEF\xAC\x81", "\xEF\xAC\x81", "\xEF\xAC\x81"},  // compatibility stays
      {"\xF0\x9D\x85\x9E", "\xF0\x9D\x85\x97\xF0\x9D\x85\xA5", "\xF0\x9D\x85\x97\xF0\x9D\x85\xA5"},
  };
  for (const auto &row : rows) {
    ScopedDynBuf out;
    ASSERT_TRUE(CodeSet_Utf8Normalize(row.in.c_str(), true, &out));
    EXPECT_EQ(row.composed, std::string(out.data, out.size));
    ASSERT_TRUE(CodeSet_Utf8Normalize(row.in.c_str(), false, &out));
    EXPECT_EQ(row.composed + row.decomposed, std::string(out.data, out.size));
  }
  ScopedDynBuf out;
  EXPECT_FALSE(CodeSet_Utf8Normalize("a\xC3", true, &out));
}

}  // namespace
