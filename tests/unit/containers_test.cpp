// containers_test.cpp -- byte buffers, and texts and what escaping makes of them; hash tables have a
// program of their own.
//
// Properties of random bytes, UndoFixed and Strchr: fuzz/escape_fuzz.cpp.
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "dynbuf.h"
#include "escape.h"
#include "heap.h"
#include "tests/support/allocFault.h"
#include "tests/support/capture.h"

namespace {

using namespace std::string_view_literals;

// ---- byte buffers ----------------------------------------------------------------------------

TEST(DynBuf, GrowsByTheRule) {
  static constexpr size_t kRows[][3] = {// allocated, asked for, grown
                                        {0, 0, 128},
                                        {128, 64, 256},
                                        {128, 257, 257},
                                        {0x3ffff, 0x40000, 0x7fffe},
                                        {0x80000, 0, 0xc0000}};
  for (const auto &[allocated, minSize, grown] : kRows) {
    ScopedDynBuf buf;
    if (allocated > 0) DynBuf_Attach(&buf, allocated, Heap_SafeMalloc(allocated));
    ASSERT_TRUE(DynBuf_Enlarge(&buf, minSize));
    EXPECT_EQ(grown, buf.allocated) << allocated << " " << minSize;
  }
  EXPECT_EQ("Panic: Unrecoverable memory allocation failure at lib/some/file:4000000000\n",
            FatalText([] {
              ScopedDynBuf buf;
              DynBuf_SafeEnlarge(&buf, SIZE_MAX, "lib/some/file", 4000000000);
            }));
}

TEST(DynBuf, WhatIsAppendedIsCopiedTrimmedAndHandedOver) {
  ScopedDynBuf buf, copy;
  std::string model;
  for (const size_t count : {0U, 1U, 127U, 1U, 300U}) {
    const std::string piece(count, static_cast<char>('a' + count % 26));
    ASSERT_TRUE(DynBuf_Append(&buf, piece.data(), count));
    model += piece;
  }
  ASSERT_TRUE(DynBuf_Copy(&buf, &copy) && DynBuf_Trim(&copy));
  EXPECT_TRUE(buf.allocated == 512 && copy.allocated == model.size());
  // Needs room for the NUL first; afterwards the buffer has nothing but its size.
  EXPECT_EQ(model, HeapStr(DynBuf_DetachString(&copy)).get());
  EXPECT_TRUE(copy.data == nullptr && copy.allocated == 0 && copy.size == model.size());

  // Failure changes nothing.
  DynBuf huge = {.data = &model[0], .size = 1, .allocated = SIZE_MAX - 0x3ffff};
  const AllocFault fault(1);
  EXPECT_FALSE(DynBuf_Append(&buf, "", SIZE_MAX - 6) || DynBuf_Enlarge(&huge, 0));  // they wrap
  EXPECT_TRUE(!fault.Fired() && !DynBuf_Enlarge(&buf, 0) && fault.Fired());
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(model, std::string(buf.data, buf.size));
}

// ---- escaping --------------------------------------------------------------------------------

// The procedures under one signature; those without a length make strings.
using Operation = char *(*)(std::string_view text, size_t *length);

constexpr Operation kDo = [](auto text, size_t *length) {
  return Escape_Do('%', Escape_Table(" \xff"), text.data(), text.size(), length);
};
constexpr Operation kUndo = [](auto text, size_t *length) {
  return Escape_Undo('%', text.data(), text.size(), length);
};
constexpr Operation kAnsi = [](auto text, size_t *length) {
  return Escape_AnsiToUnix(text.data(), text.size(), length);
};
constexpr Operation kUnescape = [](auto text, size_t *) {
  return Escape_Unescape('\\', text.data());
};
constexpr Operation kComma = [](auto text, size_t *) { return Escape_Comma(text.data()); };
constexpr Operation kCString = [](auto text, size_t *) {
  char *const copy = strdup(text.data());
  Escape_UnescapeCString(copy);
  return copy;
};

const struct {
  Operation operation;
  std::string_view text, result;
} kRows[] = {
    // The table alone decides, also about the escape byte.
    {kDo, "a\0 \xff%41"sv, "a\0%20%FF%41"sv},
    {kUndo, "%4142%00%4a%af%", "A42\0J\xaf%"sv},
    {kUndo, "%%%41%4%41%:0%/0%@0%G0%`0%g0", "%%A%4%41%:0%/0%@0%G0%`0%g0"},
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
      const HeapStr result(row.operation(row.text, &length));
      fired = fault.Fired();
      ASSERT_EQ(fired, result == nullptr) << row.text;
      EXPECT_TRUE(!fired || (errno == ENOMEM && length == 4711));
      if (fired) continue;
      if (length == 4711) length = strlen(result.get());
      EXPECT_EQ(row.result, std::string_view(result.get(), length));
    }
  }
}

TEST(Escape, AShellReadsTheQuotedTextBack) {
  std::string text = "''\"\\'\n$(exit 1)`exit 1` -n %s !x ~ *";
  for (int c = 1; c < 256; c++) text += static_cast<char>(c);
  const HeapStr quoted(Escape_Sh(text.data(), text.size(), nullptr));
  const std::string command = std::string("printf %s ") + quoted.get();
  const ChildResult shell =
      RunInChild([&] { execl("/bin/sh", "sh", "-c", command.c_str(), nullptr); });
  EXPECT_TRUE(shell.exitStatus == 0 && shell.output == text) << shell.output;
}

}  // namespace
