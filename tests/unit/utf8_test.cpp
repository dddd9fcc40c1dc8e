// utf8_test.cpp -- 32-bit code units to UTF-8, with iconv as second opinion.

#include "utf8.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <string>

namespace {

using std::string;
using std::u32string;

string ByIconv(u32string source) {
  string target(4 * source.size(), '\0');
  char *from = reinterpret_cast<char *>(source.data());
  char *to = target.data();
  size_t fromLeft = source.size() * sizeof source[0];
  size_t toLeft = target.size();
  const iconv_t converter = iconv_open("UTF-8", "UTF-32LE");
  EXPECT_EQ(0u, iconv(converter, &from, &fromLeft, &to, &toLeft));
  iconv_close(converter);
  return target.substr(0, target.size() - toLeft);
}

// All but the surrogates; each piece goes on where the last one was full.
TEST(Utf8, EveryCharacterAgreesWithIconv) {
  u32string source;
  for (char32_t c = 0; c < 0x110000; ++c) {
    if (c < 0xD800 || c > 0xDFFF) source += c;
  }
  string actual;
  const char32_t *from = source.data();
  for (Utf8Result result = Utf8Result::TargetExhausted; result == Utf8Result::TargetExhausted;) {
    char piece[] = "#######";
    char *to = piece;
    result = Utf8_FromUtf32(&from, source.data() + source.size(), &to, piece + 5, Utf8Mode::Strict);
    actual.append(piece, to);
    ASSERT_EQ('#', piece[5]);
  }
  EXPECT_EQ(ByIconv(source), actual);
}

TEST(Utf8, ResultsByModeAndRoom) {
  using enum Utf8Mode;
  using enum Utf8Result;
  struct {
    u32string source;
    size_t room;
    Utf8Mode mode;
    Utf8Result result;
    string expected;
  } const rows[] = {
      {U"", 0, Strict, Ok, ""},
      {U"\U0001F600", 3, Strict, TargetExhausted, ""},
      {{'a', 0xD800, 'b'}, 9, Strict, SourceIllegal, "a"},
      {{0xDFFF, 'z'}, 9, Lenient, Ok, "\xed\xbf\xbfz"},
      {{0x110000, 'z'}, 9, Strict, SourceIllegal, "\xef\xbf\xbdz"},
      {{0xFFFFFFFF, 'z'}, 9, Lenient, SourceIllegal, "\xef\xbf\xbdz"},
      {{0x110000, 'z'}, 3, Lenient, TargetExhausted, "\xef\xbf\xbd"},
  };
  for (const auto &row : rows) {
    string target(row.room, '#');
    const char32_t *from = row.source.data();
    char *to = target.data();
    EXPECT_EQ(row.result, Utf8_FromUtf32(&from, from + row.source.size(), &to,
                                         target.data() + row.room, row.mode));
    EXPECT_EQ(row.expected, string(target.data(), to));
  }
}

}  // namespace
