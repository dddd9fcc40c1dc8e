// dynbuf_test.cpp -- growth, hand-over and failure of byte buffers.
//
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.

#include "dynbuf.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>

#include "heap.h"
#include "tests/support/allocFault.h"
#include "tests/support/capture.h"

namespace {

TEST(DynBuf, GrowsByTheRule) {
  static constexpr size_t kRows[][3] = {// allocated, asked for, grown
                                        {0, 0, 128},
                                        {128, 64, 256},
                                        {128, 257, 257},
                                        {0x3ffff, 0x40000, 0x7fffe},
                                        {0x80000, 0, 0xc0000}};
  for (const auto &[allocated, minSize, grown] : kRows) {
    const std::string content(allocated, 'x');
    ScopedDynBuf buf;
    if (allocated > 0) DynBuf_Attach(&buf, allocated, Heap_SafeStrdup(content.c_str()).release());
    ASSERT_TRUE(DynBuf_Enlarge(&buf, minSize));
    EXPECT_EQ(grown, buf.allocated) << allocated << " " << minSize;
    EXPECT_EQ(content, std::string(buf.data, buf.size));
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
  ASSERT_TRUE(DynBuf_Copy(&buf, &copy) && DynBuf_Trim(&copy));
  EXPECT_TRUE(buf.allocated == 512 && copy.allocated == model.size());
  // Needs room for the NUL first; afterwards the buffer has nothing but its size.
  EXPECT_EQ(model, HeapStr(DynBuf_DetachString(&copy)).get());
  EXPECT_TRUE(copy.data == nullptr && copy.allocated == 0 && copy.size == model.size());
  EXPECT_EQ(model, std::string(buf.data, buf.size));
}

TEST(DynBuf, FailureChangesNothing) {
  ScopedDynBuf buf;
  ASSERT_TRUE(DynBuf_Append(&buf, "content", 7));
  char block[] = "x";
  DynBuf huge = {.data = block, .size = 1, .allocated = SIZE_MAX - 0x3ffff};
  const AllocFault fault(1);
  const std::function<bool()> operations[] = {
      [&] { return DynBuf_Append(&buf, "", SIZE_MAX - 6); },
      [&] { return DynBuf_Enlarge(&huge, 0); },  // the step wraps
      [&] { return DynBuf_Enlarge(&buf, 0); },   // the only one that comes to an allocation
  };
  for (const auto &operation : operations) {
    errno = 0;
    EXPECT_FALSE(operation());
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(128U, buf.allocated);
    EXPECT_EQ("content", std::string(buf.data, buf.size));
  }
  EXPECT_TRUE(fault.Fired());
}

TEST(DynBuf, SafeVariantsNameTheirCaller) {
  EXPECT_EQ("Panic: Unrecoverable memory allocation failure at lib/some/file:4000000000\n",
            FatalText([] {
              ScopedDynBuf buf;
              DynBuf_SafeEnlarge(&buf, SIZE_MAX, "lib/some/file", 4000000000);
            }));
}

}  // namespace
