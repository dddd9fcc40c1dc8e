// str_test.cpp -- bounded buffers: what a cut text looks like, what is fatal, and the bounded
// copies.

#include "str.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/capture.h"

namespace {

using std::string;

// What is left of a text in a buffer of `size` bytes, by the rule on characters.
string WholeCharacters(const string &text, size_t size) {
  if (text.size() < size) return text;
  size_t kept = size - 1;
  while (kept > 0 && (static_cast<unsigned char>(text[kept]) & 0xC0) == 0x80) --kept;
  return text.substr(0, kept);
}

TEST(Str, CutsBetweenCharactersAtEverySize) {
  const string texts[] = {"plain", "a\xe2\x82\xac",
                          "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z\xf0\x9f\x98\x80"};
  for (const string &text : texts) {
    for (size_t size = 0; size <= text.size() + 2; ++size) {
      std::vector<char> buffer(size + 1, '#');
      const bool fits = text.size() < size;
      EXPECT_EQ(fits ? static_cast<int>(text.size()) : -1,
                Str_Snprintf(buffer.data(), size, "%s", text.c_str()));
      EXPECT_EQ(size == 0 ? "" : WholeCharacters(text, size),
                string(buffer.data(), strnlen(buffer.data(), size)))
          << text << " in " << size;
      EXPECT_EQ('#', buffer[size]);
    }
  }
}

TEST(Str, CutsMalformedTextAtItsLastLeadByte) {
  struct {
    string text, expected;  // in 6 bytes
  } const rows[] = {
      {"abcd\x80xx", "abcd\x80"},                          // ASCII is always whole
      {"\x80\x80\x80\x80\x80\x80", ""},                    // no lead byte at all
      {"ab\xc3\xa9\xa9xx", "ab"},                          // too long for its lead
      {"abcd\xffxx", "abcd"},                              // no lead byte has eight bits
      {"\xf8\x80\x80\x80\x80xx", "\xf8\x80\x80\x80\x80"},  // its own length says five
  };
  for (const auto &row : rows) {
    char buffer[7] = "######";
    EXPECT_EQ(-1, Str_Snprintf(buffer, 6, "%s", row.text.c_str()));
    EXPECT_EQ(row.expected, buffer);
  }
}

TEST(Str, FailedTextsAreTerminated) {
  char buffer[8] = "#######";
  EXPECT_EQ(-1, Str_Snprintf(buffer, sizeof buffer, "\xc3\xa9%lc", 0x20ac));
  EXPECT_STREQ("\xc3\xa9", buffer);
  // Full before the failure.
  EXPECT_EQ(-1, Str_Snprintf(buffer, 3, "a\xc3\xa9%lc", 0x20ac));
  EXPECT_STREQ("a", buffer);
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
  // The text is cut before the end is told.
  const ChildResult child = RunInChild([] {
    atexit([] { printf("<%s>", buffer); });
    Str_Sprintf(buffer, 3, "a\xc3\xa9");
  });
  EXPECT_TRUE(child.output.ends_with("<a>")) << child.output;
}

TEST(Str, BoundedCopies) {
  char buffer[8] = "#######";
  EXPECT_STREQ("abc", Str_Strcpy(buffer, "abc", 4));
  EXPECT_STREQ("ab", Str_Strncpy(buffer, 3, "abcd", 2));
  EXPECT_STREQ("", Str_Strncpy(buffer, 1, "", 9));
  EXPECT_STREQ("abcd", Str_Strcat(strcpy(buffer, "ab"), "cd", 5));
  // Fits by the bytes asked for, or by the bytes that there are.
  EXPECT_STREQ("abc", Str_Strncat(strcpy(buffer, "ab"), 4, "cdefgh", 1));
  EXPECT_STREQ("abc", Str_Strncat(strcpy(buffer, "ab"), 4, "c", 100));
  char letters[] = "@AZ[`az{\xc3\x89\xc3\xa9";
  EXPECT_STREQ("@az[`az{\xc3\x89\xc3\xa9", Str_ToLower(letters));
  EXPECT_STREQ("@AZ[`AZ{\xc3\x89\xc3\xa9", Str_ToUpper(letters));
}

TEST(Str, BoundedSearches) {
  const char unterminated[] = {'a', 'b', 'a', 'b', 'c'};
  EXPECT_EQ(5u, Str_Strlen(unterminated, 5));
  EXPECT_EQ(1u, Str_Strlen("a", 9));
  EXPECT_EQ(unterminated + 2, Str_Strnstr(unterminated, "abc", 5));
  EXPECT_EQ(nullptr, Str_Strnstr(unterminated, "abc", 4));
  EXPECT_EQ(unterminated, Str_Strnstr(unterminated, "", 0));
  EXPECT_EQ(nullptr, Str_Strnstr("ab\0c", "c", 4));
}

}  // namespace
