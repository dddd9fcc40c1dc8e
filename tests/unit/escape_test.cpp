// escape_test.cpp -- texts and what they become, and quoted texts read back by a real shell.
//
// Properties of random bytes: fuzz/escape_fuzz.cpp.
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.

#include "escape.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <string_view>

#include "heap.h"
#include "tests/support/allocFault.h"

namespace {

using namespace std::string_view_literals;

// The procedures under one signature; those without a length make strings.
using Operation = std::function<char *(std::string_view text, size_t *outLength)>;

Operation Measured(char *(*procedure)(const char *)) {
  return [procedure](std::string_view text, size_t *outLength) {
    char *const result = procedure(std::string(text).c_str());
    if (result != nullptr) *outLength = strlen(result);
    return result;
  };
}

constexpr EscapeTable kTable = Escape_Table(" \xff");

const Operation kDo = [](auto text, size_t *outLength) {
  return Escape_Do('%', kTable, text.data(), text.size(), outLength);
};
const Operation kDoString = [](auto text, size_t *outLength) {
  return Escape_DoString("\\x", kTable, text.data(), text.size(), outLength);
};
const Operation kUndo = [](auto text, size_t *outLength) {
  return Escape_Undo('%', text.data(), text.size(), outLength);
};
const Operation kAnsi = [](auto text, size_t *outLength) {
  return Escape_AnsiToUnix(text.data(), text.size(), outLength);
};
const Operation kSh = [](auto text, size_t *outLength) {
  return Escape_Sh(text.data(), text.size(), outLength);
};
const Operation kUnescape = Measured([](const char *text) { return Escape_Unescape('\\', text); });
const Operation kComma = Measured(Escape_Comma);
const Operation kCString = Measured([](const char *text) {
  char *const copy = strdup(text);
  Escape_UnescapeCString(copy);
  return copy;
});

const struct {
  Operation operation;
  std::string_view text, result;
} kRows[] = {
    {kDo, "a\0 \xff%41"sv,
     "a\0%20%FF%41"sv},  // the table alone decides, also about the escape byte
    {kDoString, "a b ", "a\\x20b\\x20"},
    {kUndo, "", ""},
    {kUndo, "a%2", "a%2"},
    {kUndo, "%%%41", "%%A"},
    {kUndo, "%4%41", "%4%41"},
    {kUndo, "%4142%00%4a%af%", "A42\0J\xaf%"sv},
    {kUndo, "%:0%/0%@0%G0%`0%g0", "%:0%/0%@0%G0%`0%g0"},
    {kAnsi, "a\r\n\r\nb\rc\r\r\n\r", "a\n\nb\rc\r\n\r"},
    {kSh, "it's", "'it'\"'\"'s'"},
    {kUnescape, "a\\,b\\\\, and no byte after\\", "a,b\\, and no byte after"},
    {kComma, "a,b\\,", "a\\,b\\\\\\,"},
    {kCString, "a\\nb\\\\n\\\\101\\", "a\nb\\n\\101\\"},
    {kCString, "\\101\\0123\\377\\501,",
     "A\n3\xff"
     "A,"},
    {kCString, "\\000cut", ""},
    {kCString, "\\12\\1 1\\ 12\\+12\\-12\\128\\812\\t\\N\\x41",
     "\\12\\1 1\\ 12\\+12\\-12\\128\\812\\t\\N\\x41"},
};

TEST(Escape, TextsBecomeWhatTheyShallUnlessMemoryRunsOut) {
  for (const auto &row : kRows) {
    bool fired = true;
    for (int nth = 1; fired; nth++) {
      const AllocFault fault(nth);
      size_t length = 4711;
      errno = 0;
      const HeapStr result(row.operation(row.text, &length));
      fired = fault.Fired();
      ASSERT_EQ(fired, result == nullptr) << row.text;
      EXPECT_EQ(fired ? ENOMEM : 0, errno);
      EXPECT_EQ(fired ? 4711 : row.result.size(), length);
      if (fired) continue;
      EXPECT_EQ(std::string(row.result) + '\0', std::string(result.get(), length + 1));
    }
  }
}

TEST(Escape, UndoFixedNeedsRoomForTheWholeResult) {
  for (const size_t size : {0U, 5U, 6U}) {
    char out[] = "########";
    errno = 0;
    const bool fits = Escape_UndoFixed('%', "a%20b%00c", 9, out, size);
    EXPECT_EQ(size >= 6, fits) << size;
    EXPECT_EQ(0, memcmp(fits ? "a b\0c\0##" : "########", out, sizeof out)) << size;
    EXPECT_EQ(fits ? 0 : ERANGE, errno) << size;
  }
}

TEST(Escape, StrchrPassesProtectedBytes) {
  constexpr char kText[] = "a\\,b\\\\,\\";
  EXPECT_EQ(kText + 6, Escape_Strchr('\\', kText, ','));
  EXPECT_EQ(kText + 1, Escape_Strchr('\\', kText, '\\'));
  EXPECT_EQ(nullptr, Escape_Strchr('\\', kText, 'x'));
  EXPECT_EQ(nullptr, Escape_Strchr('\\', kText, '\0'));
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
