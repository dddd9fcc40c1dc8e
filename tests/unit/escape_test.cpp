// escape_test.cpp -- texts and what they become, and quoted texts read back by a real shell.
//
// Properties of random bytes, and UndoFixed: fuzz/escape_fuzz.cpp.
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.

#include "escape.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "heap.h"
#include "tests/support/allocFault.h"
#include "tests/support/capture.h"

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

// The procedures under one signature; those without a length make strings.
using Operation = char *(*)(std::string_view text, size_t *outLength);

template <auto kProcedure>
char *Measured(std::string_view text, size_t *outLength) {
  char *const result = kProcedure(std::string(text).c_str());
  if (result != nullptr) *outLength = strlen(result);
  return result;
}

constexpr Operation kDo = [](auto text, size_t *outLength) {
  return Escape_Do('%', Escape_Table(" \xff"), text.data(), text.size(), outLength);
};
constexpr Operation kUndo = [](auto text, size_t *outLength) {
  return Escape_Undo('%', text.data(), text.size(), outLength);
};
constexpr Operation kUndoFixed = [](auto text, size_t *outLength) -> char * {
  char out[8];
  if (!Escape_UndoFixed('%', text.data(), text.size(), out, sizeof out)) return nullptr;
  *outLength = strlen(out);
  return strdup(out);
};
constexpr Operation kAnsi = [](auto text, size_t *outLength) {
  return Escape_AnsiToUnix(text.data(), text.size(), outLength);
};
constexpr Operation kUnescape =
    Measured<[](const char *text) { return Escape_Unescape('\\', text); }>;
constexpr Operation kComma = Measured<Escape_Comma>;
constexpr Operation kCString = Measured<[](const char *text) {
  char *const copy = strdup(text);
  Escape_UnescapeCString(copy);
  return copy;
}>;

const struct {
  Operation operation;
  std::string_view text, result;
} kRows[] = {
    // The table alone decides, also about the escape byte.
    {kDo, "a\0 \xff%41"sv, "a\0%20%FF%41"sv},
    {kUndo, "%4142%00%4a%af%", "A42\0J\xaf%"sv},
    {kUndo, "%%%41%4%41", "%%A%4%41"},
    {kUndo, "%:0%/0%@0%G0%`0%g0", "%:0%/0%@0%G0%`0%g0"},
    {kUndoFixed, "a%20b", "a b"},
    {kAnsi, "a\r\n\r\nb\rc\r\r\n\r", "a\n\nb\rc\r\n\r"},
    {kUnescape, "a\\,b\\\\, and no byte after\\", "a,b\\, and no byte after"},
    {kComma, "a,b\\,", "a\\,b\\\\\\,"},
    {kCString, "a\\nb\\\\n\\\\101\\377\\", "a\nb\\n\\101\xff\\"},
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

TEST(Escape, StrchrPassesProtectedBytes) {
  constexpr char kText[] = "a\\,b\\\\,\\";
  EXPECT_EQ(kText + 6, Escape_Strchr('\\', kText, ','));
  EXPECT_EQ(kText + 1, Escape_Strchr('\\', kText, '\\'));
  EXPECT_EQ(nullptr, Escape_Strchr('\\', kText, 'x'));
  EXPECT_EQ(nullptr, Escape_Strchr('\\', kText, '\0'));
}

TEST(Escape, AShellReadsTheQuotedTextBack) {
  std::string text = "''\"\\'\n$(exit 1)`exit 1` -n %s !x ~ *";
  for (int c = 1; c < 256; c++) text += static_cast<char>(c);
  const HeapStr quoted(Escape_Sh(text.data(), text.size(), nullptr));
  const ChildResult shell = RunInChild(
      [&] { execl("/bin/sh", "sh", "-c", ("printf %s "s + quoted.get()).c_str(), nullptr); });
  EXPECT_EQ(0, shell.exitStatus);
  EXPECT_EQ(text, shell.output);
}

}  // namespace
