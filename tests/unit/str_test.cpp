// str_test.cpp -- bounded buffers: what a cut text looks like, what is fatal, and the bounded
// copies.

#include "str.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/support/capture.h"

namespace {

using std::string;

TEST(Str, CutsBetweenCharactersAtEverySize) {
  const string text = "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z\xf0\x9f\x98\x80";
  const size_t kept[] = {0, 0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10, 11, 11, 11, 11, 15, 15};
  for (size_t size = 0; size < std::size(kept); ++size) {
    string buffer(size + 1, '#');
    EXPECT_EQ(text.size() < size ? static_cast<int>(text.size()) : -1,
              Str_Snprintf(buffer.data(), size, "%s", text.c_str()));
    EXPECT_EQ(size == 0 ? "#" : text.substr(0, kept[size]), buffer.c_str()) << size;
    EXPECT_EQ('#', buffer[size]);
  }
  // Malformed text is cut at its last lead byte.
  const char *const rows[][2] = {
      {"abcd\x80xx", "abcd\x80"},                          // ASCII is always whole
      {"\x80\x80\x80\x80\x80\x80", ""},                    // no lead byte at all
      {"ab\xc3\xa9\xa9xx", "ab"},                          // too long for its lead
      {"abcd\xffxx", "abcd"},                              // no lead byte has eight bits
      {"\xf8\x80\x80\x80\x80xx", "\xf8\x80\x80\x80\x80"},  // its own length says five
  };
  for (const auto &[malformed, expected] : rows) {
    char buffer[6];
    EXPECT_EQ(-1, Str_Snprintf(buffer, sizeof buffer, "%s", malformed));
    EXPECT_STREQ(expected, buffer);
  }
}

TEST(Str, WhatDoesNotFitIsFatal) {
  static char buffer[8];
  struct {
    const char *line;  // of the message
    std::function<void()> body;
  } const rows[] = {
      {"lib/string/str:214", [] { Str_Sprintf(buffer, 3, "%d", 123); }},
      {"lib/string/str:214", [] { Str_Sprintf(buffer, 8, "%lc", 0x20ac); }},
      {"lib/string/str:177", [] { Str_SprintfPosixLocale(buffer, 3, "%d", 123); }},
      {"lib/string/str:284", [] { Str_Strcpy(buffer, "abc", 3); }},
      {"lib/string/str:322", [] { Str_Strncpy(buffer, 3, "abcd", 3); }},
      {"lib/string/str:444", [] { Str_Strcat(strcpy(buffer, "ab"), "cd", 4); }},
      {"lib/string/str:498", [] { Str_Strncat(strcpy(buffer, "ab"), 4, "cde", 2); }},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(string("Panic: ") + row.line + " Buffer too small\n", FatalText(row.body));
  }
  EXPECT_EQ("Panic: VERIFY lib/string/str:657\n",
            FatalText([] { free(Str_SafeAsprintf(nullptr, "%lc", 0x20ac)); }));
}

TEST(Str, BoundedCopiesAndSearches) {
  char buffer[8] = "#######";
  EXPECT_STREQ("abc", Str_Strcpy(buffer, "abc", 4));
  EXPECT_STREQ("ab", Str_Strncpy(buffer, 3, "abcd", 2));
  EXPECT_STREQ("abcd", Str_Strcat(strcpy(buffer, "ab"), "cd", 5));
  // Fits by the bytes asked for, or by the bytes that there are.
  EXPECT_STREQ("abc", Str_Strncat(strcpy(buffer, "ab"), 4, "cdefgh", 1));
  EXPECT_STREQ("abc", Str_Strncat(strcpy(buffer, "ab"), 4, "c", 100));
  char letters[] = "@AZ[`az{\xc3\x89\xc3\xa9";
  EXPECT_STREQ("@az[`az{\xc3\x89\xc3\xa9", Str_ToLower(letters));
  EXPECT_STREQ("@AZ[`AZ{\xc3\x89\xc3\xa9", Str_ToUpper(letters));
  const char unterminated[] = {'a', 'b', 'a', 'b', 'c'};
  EXPECT_EQ(unterminated + 2, Str_Strnstr(unterminated, "abc", 5));
  EXPECT_EQ(nullptr, Str_Strnstr(unterminated, "abc", 4));
  EXPECT_EQ(unterminated, Str_Strnstr(unterminated, "", 0));
  EXPECT_EQ(nullptr, Str_Strnstr("ab\0c", "c", 4));
}

}  // namespace
