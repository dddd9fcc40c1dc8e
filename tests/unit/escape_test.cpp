// escape_test.cpp -- escaping against its own way back and against a real shell.
//
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.

#include "escape.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "heap.h"
#include "tests/support/allocFault.h"

namespace {

std::mt19937 dice(4);

std::string RandomBytes(size_t length, const std::string &without = "") {
  std::string bytes;
  while (bytes.size() < length) {
    const char byte = static_cast<char>(dice());
    if (without.find(byte) == std::string::npos) bytes += byte;
  }
  return bytes;
}

// Takes over a result; its length must be told and be followed by a NUL.
std::string Take(char *result, size_t length) {
  const HeapStr owner(result);
  EXPECT_NE(nullptr, result);
  if (result == nullptr) return "(null)";
  EXPECT_EQ('\0', result[length]);
  return std::string(result, length);
}

std::string Take(char *result) {
  return Take(result, result == nullptr ? 0 : strlen(result));
}

std::string Do(char escapeByte, const EscapeTable &table, const std::string &text) {
  size_t length = SIZE_MAX;
  char *const result = Escape_Do(escapeByte, table, text.data(), text.size(), &length);
  return Take(result, length);
}

std::string Undo(char escapeByte, const std::string &text) {
  size_t length = SIZE_MAX;
  char *const result = Escape_Undo(escapeByte, text.data(), text.size(), &length);
  return Take(result, length);
}

std::string Sh(const std::string &text) {
  size_t length = SIZE_MAX;
  char *const result = Escape_Sh(text.data(), text.size(), &length);
  return Take(result, length);
}

TEST(Escape, WritesUpperCaseDigits) {
  constexpr EscapeTable kTable = Escape_Table(" \xff");
  EXPECT_EQ("a%20b", Do('%', kTable, "a b"));
  EXPECT_EQ("%20%FF%20", Do('%', kTable, " \xff "));
  EXPECT_EQ("a%41", Do('%', kTable, "a%41")) << "the table alone decides";
  EXPECT_EQ("", Do('%', kTable, ""));
  EXPECT_EQ("a\\x20b\\x20", Take(Escape_DoString("\\x", kTable, "a b cut off", 4, nullptr)));
  EXPECT_EQ("", Take(Escape_Do('%', kTable, nullptr, 0, nullptr)));
}

TEST(Escape, UndoIsTheInverseForAnyBytesAndTable) {
  for (int round = 0; round < 3000; round++) {
    EscapeTable table;
    const unsigned density = dice() % 256;
    for (bool &marked : table) marked = dice() % 256 < density;
    const char escapeByte = static_cast<char>(dice());
    table[static_cast<unsigned char>(escapeByte)] = true;
    const std::string text = RandomBytes(dice() % 300);
    ASSERT_EQ(text, Undo(escapeByte, Do(escapeByte, table, text)));
  }
}

TEST(Escape, UndoLeavesWhatIsNoSequence) {
  static constexpr struct {
    const char *text, *undone;
  } kRows[] = {
      {"", ""},
      {"%", "%"},
      {"a%2", "a%2"},
      {"%%41", "%%41"},
      {"%4%41", "%4%41"},
      {"%41%", "A%"},
      {"%%%41", "%%A"},
      {"%4g%41", "%4gA"},
      {"%4a%4A", "JJ"},
      {"%4142", "A42"},
      {"%:0%/0", "%:0%/0"},
      {"%@0%G0%`0", "%@0%G0%`0"},
      {"%7e%7F", "~\x7f"},
  };
  for (const auto &row : kRows) EXPECT_EQ(row.undone, Undo('%', row.text)) << row.text;
  EXPECT_EQ("\xa1 A", Undo('A', "AA1 A")) << "a digit as the escape byte";
  EXPECT_EQ(std::string(1, '\0'), Undo('%', "%00"));
}

TEST(Escape, UndoFixedNeedsRoomForTheWholeResult) {
  const std::string text = "a%20b%00c";
  for (size_t size = 0; size < 9; size++) {
    char out[] = "########";
    errno = 0;
    const bool fits = Escape_UndoFixed('%', text.data(), text.size(), out, size);
    EXPECT_EQ(size >= 6, fits) << size;
    EXPECT_EQ(0, memcmp(fits ? "a b\0c\0##" : "########", out, sizeof out)) << size;
    EXPECT_EQ(fits ? 0 : ERANGE, errno) << size;
  }
  char same[] = "%41%42";
  EXPECT_TRUE(Escape_UndoFixed('%', same, strlen(same), same, 3));
  EXPECT_STREQ("AB", same);
}

TEST(Escape, AnsiToUnixDropsTheReturnOfAPair) {
  static constexpr struct {
    const char *text, *converted;
  } kRows[] = {
      {"", ""},         {"a\r\nb\r\n", "a\nb\n"}, {"\r\r\n", "\r\n"}, {"\n\r", "\n\r"},
      {"a\rb", "a\rb"}, {"\r\n\r\n", "\n\n"},     {"\r", "\r"},
  };
  for (const auto &row : kRows) {
    size_t length = SIZE_MAX;
    char *const result = Escape_AnsiToUnix(row.text, strlen(row.text), &length);
    EXPECT_EQ(row.converted, Take(result, length));
  }
}

// What `sh -c command` writes.
std::string OutputOf(const std::string &command) {
  FILE *const pipe = popen(command.c_str(), "r");
  std::string output;
  for (int byte; pipe != nullptr && (byte = getc(pipe)) != EOF;) output += static_cast<char>(byte);
  EXPECT_TRUE(pipe != nullptr && pclose(pipe) == 0);
  return output;
}

TEST(Escape, AShellReadsTheQuotedTextBack) {
  EXPECT_EQ("'it'\"'\"'s'", Sh("it's"));
  EXPECT_EQ("''", Sh(""));
  for (const std::string &text : {std::string("'"), std::string("''\"\\'\n$(exit 1)`exit 1`"),
                                  std::string("-n \\c %s !x ~ *"), RandomBytes(5000, {"\0", 1}),
                                  RandomBytes(20000, {"\0", 1})}) {
    EXPECT_EQ(text, OutputOf("printf %s " + Sh(text)));
  }
}

TEST(Escape, AnEscapeByteMakesTheNextByteLiteral) {
  static constexpr struct {
    const char *text;
    char wanted;
    int place;  // -1: none
    const char *unescaped;
  } kRows[] = {
      {"", ',', -1, ""},          {"a,b", ',', 1, "a,b"},       {"a\\,b", ',', -1, "a,b"},
      {"a\\,b,", ',', 4, "a,b,"}, {"a\\\\,b", ',', 3, "a\\,b"}, {"a\\\\\\,b", ',', -1, "a\\,b"},
      {"a\\b", '\\', 1, "ab"},    {"a,\\", 'x', -1, "a,"},      {"a,b", '\0', -1, "a,b"},
  };
  for (const auto &row : kRows) {
    const char *const found = Escape_Strchr('\\', row.text, row.wanted);
    EXPECT_EQ(row.place, found == nullptr ? -1 : found - row.text) << row.text;
    EXPECT_EQ(row.unescaped, Take(Escape_Unescape('\\', row.text)));
  }
  EXPECT_EQ("a\\,b\\\\\\,", Take(Escape_Comma("a,b\\,")));
  for (int round = 0; round < 100; round++) {
    std::string text = RandomBytes(100, {"\0", 1});
    for (char &byte : text) {
      if (dice() % 4 == 0) byte = ",\\"[dice() % 2];
    }
    const std::string escaped = Take(Escape_Comma(text.c_str()));
    EXPECT_EQ(nullptr, Escape_Strchr('\\', escaped.c_str(), ','));
    EXPECT_EQ(text, Take(Escape_Unescape('\\', escaped.c_str())));
  }
}

TEST(Escape, UnescapeCStringKnowsThreeForms) {
  static constexpr struct {
    const char *text, *unescaped;
  } kRows[] = {
      {"", ""},
      {"a\\nb\\\\c", "a\nb\\c"},
      {"\\\\n\\\\101", "\\n\\101"},
      {"\\101\\0123\\377", "A\n3\xff"},
      {"\\000cut", ""},
      {"\\501", "A"},
      {"\\12\\1 1\\ 12\\+12\\-12", "\\12\\1 1\\ 12\\+12\\-12"},
      {"\\128\\812\\t\\N\\x41", "\\128\\812\\t\\N\\x41"},
      {"end\\", "end\\"},
  };
  for (const auto &row : kRows) {
    std::string text = row.text;
    Escape_UnescapeCString(text.data());
    EXPECT_STREQ(row.unescaped, text.c_str());
  }
}

TEST(Escape, EveryAllocationFailsInTurn) {
  static const std::string text(600, '\'');
  static constexpr EscapeTable kTable = Escape_Table("'");
  static size_t length;
  static const std::function<char *()> kOperations[] = {
      [] { return Escape_Do('%', kTable, text.data(), text.size(), &length); },
      [] { return Escape_Undo('%', text.data(), text.size(), &length); },
      [] { return Escape_AnsiToUnix(text.data(), text.size(), &length); },
      [] { return Escape_Sh(text.data(), text.size(), &length); },
      [] { return Escape_Unescape('\'', text.c_str()); },
      [] { return Escape_Comma(text.c_str()); },
  };
  for (const auto &operation : kOperations) {
    for (int nth = 1;; nth++) {
      const AllocFault fault(nth);
      length = SIZE_MAX;
      errno = 0;
      const HeapStr result(operation());
      EXPECT_EQ(fault.Fired(), result == nullptr);
      if (!fault.Fired()) {
        EXPECT_GT(nth, 2);
        break;
      }
      EXPECT_EQ(SIZE_MAX, length);
      EXPECT_EQ(ENOMEM, errno);
    }
  }
}

}  // namespace
