// dynbuf_test.cpp -- growth, hand-over and failure of byte buffers.
//
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.

#include "dynbuf.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "heap.h"
#include "tests/support/allocFault.h"
#include "tests/support/capture.h"

namespace {

std::string Content(const DynBuf &buf) {
  return std::string(buf.data, buf.size);
}

TEST(DynBuf, GrowsByTheRule) {
  static constexpr struct {
    size_t allocated, minSize, grown;
  } kRows[] = {
      {0, 0, 128},
      {0, 129, 129},
      {128, 64, 256},
      {128, 257, 257},
      {0x3ffff, 0x40000, 0x7fffe},
      {0x40000, 0x40001, 0x80000},
      {0x80000, 0, 0xc0000},
  };
  for (const auto &row : kRows) {
    const std::string content(row.allocated, 'x');
    ScopedDynBuf buf;
    if (row.allocated > 0) {
      DynBuf_Attach(&buf, row.allocated, Heap_SafeStrdup(content.c_str()).release());
    }
    ASSERT_TRUE(DynBuf_Enlarge(&buf, row.minSize));
    EXPECT_EQ(row.grown, buf.allocated) << row.allocated << " " << row.minSize;
    EXPECT_EQ(content, Content(buf));
    memset(buf.data, 'y', buf.allocated);
  }
}

TEST(DynBuf, WhatIsAppendedIsCopiedTrimmedAndHandedOver) {
  ScopedDynBuf buf, copy;
  std::string model;
  for (const size_t count : {0U, 1U, 127U, 1U, 300U}) {
    const std::string piece(count, static_cast<char>('a' + count % 26));
    ASSERT_TRUE(DynBuf_Append(&buf, piece.data(), count));
    model += piece;
  }
  EXPECT_EQ(512U, buf.allocated);
  ASSERT_TRUE(DynBuf_Copy(&buf, &copy));
  ASSERT_TRUE(DynBuf_Trim(&copy));
  EXPECT_EQ(model.size(), copy.allocated);
  EXPECT_EQ(model, Content(copy));
  // Needs room for the NUL first; afterwards the buffer has nothing but its size.
  EXPECT_EQ(model, HeapStr(DynBuf_DetachString(&copy)).get());
  EXPECT_EQ(nullptr, copy.data);
  EXPECT_EQ(0U, copy.allocated);
  EXPECT_EQ(model.size(), copy.size);
  EXPECT_EQ(model, Content(buf));
  buf.size = 0;
  ASSERT_TRUE(DynBuf_Trim(&buf));
  EXPECT_EQ(nullptr, buf.data);
}

TEST(DynBuf, FailureChangesNothing) {
  ScopedDynBuf buf;
  ScopedDynBuf other;
  ASSERT_TRUE(DynBuf_Append(&buf, "content", 7));
  char block[] = "x";
  DynBuf huge = {.data = block, .size = 1, .allocated = SIZE_MAX - 0x3ffff};
  const struct {
    int failing;  // the allocation that fails; 0: it must not come to one
    std::function<bool()> operation;
  } rows[] = {
      {0, [&] { return DynBuf_Append(&buf, "", SIZE_MAX - 6); }},
      {0, [&] { return DynBuf_Enlarge(&huge, 0); }},  // the step wraps
      {1, [&] { return DynBuf_Append(&buf, std::string(128, 'x').data(), 128); }},
      {1, [&] { return DynBuf_Trim(&buf); }},
      {1, [&] { return DynBuf_Copy(&buf, &other); }},
  };
  for (const auto &row : rows) {
    const AllocFault fault(row.failing);
    const char *const data = buf.data;
    errno = 0;
    EXPECT_FALSE(row.operation());
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(data, buf.data);
    EXPECT_EQ(128u, buf.allocated);
    EXPECT_EQ("content", Content(buf));
    EXPECT_EQ(nullptr, other.data);
  }
}

TEST(DynBuf, SafeVariantsNameTheirCaller) {
  EXPECT_EQ("Panic: Unrecoverable memory allocation failure at lib/some/file:4000000000\n",
            FatalText([] {
              ScopedDynBuf buf;
              DynBuf_SafeAppend(&buf, "x", 1, "lib/some/file", 1);
              DynBuf_SafeEnlarge(&buf, SIZE_MAX, "lib/some/file", 4000000000);
            }));
  EXPECT_EQ("Panic: MEM_ALLOC lib/public/dynbuf:145\n", FatalText([] {
              const AllocFault fault(1);
              ScopedDynBuf buf;
              const HeapStr text(DynBuf_DetachString(&buf));
            }));
}

}  // namespace
