// escape_test.cpp -- texts and what they become, and quoted texts read back by a real shell.
//
// Properties of random bytes: fuzz/escape_fuzz.cpp.
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.

#include "escape.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <string_view>

#include "heap.h"
#include "tests/support/allocFault.h"

namespace {

using namespace std::string_view_literals;

// The procedures under one signature.
using Operation = char *(*)(const std::string &text, size_t *outLength);

constexpr EscapeTable kTable = Escape_Table(" \xff");

char *Do(const std::string &text, size_t *outLength) {
  return Escape_Do('%', kTable, text.data(), text.size(), outLength);
}
char *DoString(const std::string &text, size_t *outLength) {
  return Escape_DoString("\\x", kTable, text.data(), text.size(), outLength);
}
char *Undo(const std::string &text, size_t *outLength) {
  return Escape_Undo('%', text.data(), text.size(), outLength);
}
char *UndoA(const std::string &text, size_t *outLength) {
  return Escape_Undo('A', text.data(), text.size(), outLength);
}
char *Ansi(const std::string &text, size_t *outLength) {
  return Escape_AnsiToUnix(text.data(), text.size(), outLength);
}
char *Sh(const std::string &text, size_t *outLength) {
  return Escape_Sh(text.data(), text.size(), outLength);
}
char *Measured(char *text, size_t *outLength) {
  if (text != nullptr) *outLength = strlen(text);
  return text;
}
char *Unescape(const std::string &text, size_t *outLength) {
  return Measured(Escape_Unescape('\\', text.c_str()), outLength);
}
char *Comma(const std::string &text, size_t *outLength) {
  return Measured(Escape_Comma(text.c_str()), outLength);
}
char *CString(const std::string &text, size_t *outLength) {
  char *const copy = strdup(text.c_str());
  Escape_UnescapeCString(copy);
  return Measured(copy, outLength);
}

constexpr struct {
  Operation operation;
  std::string_view text, result;
} kRows[] = {
    {Do, "a b", "a%20b"},
    {Do, " \xff%41", "%20%FF%41"},  // the table alone decides, also about the escape byte
    {Do, "a\0 "sv, "a\0%20"sv},
    {Do, "", ""},
    {DoString, "a b ", "a\\x20b\\x20"},
    {Undo, "", ""},
    {Undo, "%", "%"},
    {Undo, "a%2", "a%2"},
    {Undo, "%%41", "%%41"},
    {Undo, "%%%41", "%%A"},
    {Undo, "%4%41", "%4%41"},
    {Undo, "%41%", "A%"},
    {Undo, "%4g%41", "%4gA"},
    {Undo, "%4142%00", "A42\0"sv},
    {Undo, "%4a%4A%7f%af", "JJ\x7f\xaf"},
    {Undo, "%:0%/0%@0%G0%`0%g0", "%:0%/0%@0%G0%`0%g0"},
    {UndoA, "AA1 A", "\xa1 A"},
    {Ansi, "a\r\n\r\nb\rc\n\r", "a\n\nb\rc\n\r"},
    {Ansi, "\r\r\n\r", "\r\n\r"},
    {Sh, "", "''"},
    {Sh, "it's", "'it'\"'\"'s'"},
    {Unescape, "a\\,b\\\\, and no byte after\\", "a,b\\, and no byte after"},
    {Unescape, "\\\\\\,", "\\,"},
    {Comma, "a,b\\,", "a\\,b\\\\\\,"},
    {CString, "a\\nb\\\\c\\", "a\nb\\c\\"},
    {CString, "\\\\n\\\\101", "\\n\\101"},
    {CString, "\\101\\0123\\377\\501",
     "A\n3\xff"
     "A"},
    {CString, "\\000cut", ""},
    {CString, "\\12\\1 1\\ 12\\+12\\-12", "\\12\\1 1\\ 12\\+12\\-12"},
    {CString, "\\128\\812\\t\\N\\x41", "\\128\\812\\t\\N\\x41"},
};

TEST(Escape, TextsBecomeWhatTheyShallUnlessMemoryRunsOut) {
  for (const auto &row : kRows) {
    const std::string text(row.text);
    bool fired = true;
    for (int nth = 1; fired; nth++) {
      const AllocFault fault(nth);
      size_t length = 4711;
      errno = 0;
      const HeapStr result(row.operation(text, &length));
      fired = fault.Fired();
      ASSERT_EQ(fired, result == nullptr) << text;
      EXPECT_EQ(fired ? ENOMEM : 0, errno);
      EXPECT_EQ(fired ? 4711 : row.result.size(), length);
      if (fired) continue;
      EXPECT_EQ(std::string(row.result) + '\0', std::string(result.get(), length + 1));
    }
  }
}

TEST(Escape, UndoFixedNeedsRoomForTheWholeResult) {
  for (size_t size = 0; size < 9; size++) {
    char out[] = "########";
    errno = 0;
    const bool fits = Escape_UndoFixed('%', "a%20b%00c", 9, out, size);
    EXPECT_EQ(size >= 6, fits) << size;
    EXPECT_EQ(0, memcmp(fits ? "a b\0c\0##" : "########", out, sizeof out)) << size;
    EXPECT_EQ(fits ? 0 : ERANGE, errno) << size;
  }
}

TEST(Escape, StrchrPassesProtectedBytes) {
  static constexpr struct {
    const char *text;
    char wanted;
    int place;  // -1: none
  } kPlaces[] = {
      {"a,b", ',', 1},       {"a\\,b,", ',', 4}, {"a\\\\,b", ',', 3}, {"a\\\\\\,b", ',', -1},
      {"\\\\a\\b", '\\', 0}, {"a,\\", 'x', -1},  {"a\\b", '\0', -1},
  };
  for (const auto &row : kPlaces) {
    const char *const found = Escape_Strchr('\\', row.text, row.wanted);
    EXPECT_EQ(row.place, found == nullptr ? -1 : found - row.text) << row.text;
  }
}

TEST(Escape, AShellReadsTheQuotedTextBack) {
  std::mt19937 random(4);
  std::string text = "''\"\\'\n$(exit 1)`exit 1` -n %s !x ~ *";
  while (text.size() < 20000) text += static_cast<char>(random() % 255 + 1);
  const HeapStr quoted(Escape_Sh(text.data(), text.size(), nullptr));
  FILE *const pipe = popen((std::string("printf %s ") + quoted.get()).c_str(), "r");
  ASSERT_NE(nullptr, pipe);
  std::string output;
  for (int byte; (byte = getc(pipe)) != EOF;) output += static_cast<char>(byte);
  EXPECT_EQ(0, pclose(pipe));
  EXPECT_EQ(text, output);
}

}  // namespace
