// utf8_test.cpp -- 32-bit code units to UTF-8: what is refused, and what finds no room.

#include "utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using std::string;
using std::u32string;

// Every character: codeset_test.cpp.
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
