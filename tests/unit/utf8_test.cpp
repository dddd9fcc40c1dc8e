// utf8_test.cpp -- 32-bit code units to UTF-8, with iconv as second opinion.

#include "utf8.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <string>

namespace {

using std::string;
using std::u32string;

// Every character but the surrogates.
u32string AllCharacters() {
  u32string all;
  for (char32_t c = 0; c < 0x110000; ++c) {
    if (c < 0xD800 || c > 0xDFFF) all += c;
  }
  return all;
}

string ByIconv(u32string source) {
  string target(4 * source.size(), '\0');
  char *from = reinterpret_cast<char *>(source.data());
  char *to = target.data();
  size_t fromLeft = source.size() * sizeof source[0];
  size_t toLeft = target.size();
  const iconv_t converter = iconv_open("UTF-8", "UTF-32LE");
  EXPECT_EQ(0u, iconv(converter, &from, &fromLeft, &to, &toLeft));
  iconv_close(converter);
  target.resize(target.size() - toLeft);
  return target;
}

// In pieces of at most `room` bytes; the last result goes to *result.
string InPieces(const u32string &source, size_t room, Utf8Mode mode, Utf8Result *result) {
  string whole;
  string piece(room + 1, '#');
  const char32_t *from = source.data();
  do {
    char *to = piece.data();
    *result = Utf8_FromUtf32(&from, source.data() + source.size(), &to, piece.data() + room, mode);
    whole.append(piece.data(), to);
    EXPECT_EQ('#', piece[room]);
    if (to == piece.data()) break;
  } while (*result == Utf8Result::TargetExhausted);
  return whole;
}

TEST(Utf8, EveryCharacterAgreesWithIconv) {
  const u32string source = AllCharacters();
  const string expected = ByIconv(source);
  for (const size_t room : {size_t{4}, size_t{5}, size_t{1000}, expected.size()}) {
    Utf8Result result;
    EXPECT_EQ(expected, InPieces(source, room, Utf8Mode::Strict, &result)) << room;
    EXPECT_EQ(Utf8Result::Ok, result);
  }
}

TEST(Utf8, ResultsByModeAndRoom) {
  struct {
    u32string source;
    size_t room;
    Utf8Mode mode;
    Utf8Result result;
    string expected;
  } const rows[] = {
      {U"", 0, Utf8Mode::Strict, Utf8Result::Ok, ""},
      {U"a", 0, Utf8Mode::Strict, Utf8Result::TargetExhausted, ""},
      {U"\U0001F600", 3, Utf8Mode::Strict, Utf8Result::TargetExhausted, ""},
      {{'a', 0xD800, 'b'}, 9, Utf8Mode::Strict, Utf8Result::SourceIllegal, "a"},
      {{'a', 0xDFFF, 'b'},
       9,
       Utf8Mode::Lenient,
       Utf8Result::Ok,
       "a\xed\xbf\xbf"
       "b"},
      {{0x110000, 'b'},
       9,
       Utf8Mode::Strict,
       Utf8Result::SourceIllegal,
       "\xef\xbf\xbd"
       "b"},
      {{0xFFFFFFFF, 'b'},
       9,
       Utf8Mode::Lenient,
       Utf8Result::SourceIllegal,
       "\xef\xbf\xbd"
       "b"},
      {{0x110000, 'b'}, 3, Utf8Mode::Lenient, Utf8Result::TargetExhausted, "\xef\xbf\xbd"},
      {{0x110000}, 2, Utf8Mode::Lenient, Utf8Result::TargetExhausted, ""},
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
