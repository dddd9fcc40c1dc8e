// dynbuf_test.cpp -- growth, hand-over and failure of byte buffers.
//
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.

#include "dynbuf.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>

#include "heap.h"
#include "tests/support/allocFault.h"
#include "tests/support/capture.h"

namespace {

std::string Content(const DynBuf &buf) {
  return std::string(buf.data, buf.size);
}

// Whether `operation` fails with ENOMEM and changes no field.
void ExpectRefused(DynBuf *buf, const std::function<bool()> &operation) {
  const DynBuf before = *buf;
  errno = 0;
  EXPECT_FALSE(operation());
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(before.data, buf->data);
  EXPECT_EQ(before.size, buf->size);
  EXPECT_EQ(before.allocated, buf->allocated);
}

TEST(DynBuf, GrowsByTheRule) {
  static constexpr struct {
    size_t allocated, minSize, grown;
  } kRows[] = {
      {0, 0, 128},
      {0, 128, 128},
      {0, 129, 129},
      {1, 0, 2},
      {128, 64, 256},
      {128, 257, 257},
      {0x3ffff, 0x40000, 0x7fffe},
      {0x40000, 0x40001, 0x80000},
      {0x80000, 0, 0xc0000},
      {0x80000, 0xc0001, 0xc0001},
  };
  for (const auto &row : kRows) {
    ScopedDynBuf buf;
    if (row.allocated > 0) {
      DynBuf_InitWithMemory(&buf, row.allocated, Heap_SafeMalloc(row.allocated));
      memset(buf.data, 'x', row.allocated);
      buf.size = row.allocated;
    }
    ASSERT_TRUE(DynBuf_Enlarge(&buf, row.minSize));
    EXPECT_EQ(row.grown, buf.allocated) << row.allocated << " " << row.minSize;
    EXPECT_EQ(std::string(row.allocated, 'x'), Content(buf));
    memset(buf.data, 'y', buf.allocated);
  }
}

TEST(DynBuf, AppendedPiecesAreTheContent) {
  std::mt19937 random(1);
  ScopedDynBuf buf;
  std::string model;
  EXPECT_TRUE(DynBuf_Append(&buf, nullptr, 0));
  EXPECT_EQ(0u, buf.allocated);
  while (model.size() < 0x90000) {
    const std::string piece(random() % 0x1000, static_cast<char>(random()));
    const bool fits = buf.size + piece.size() <= buf.allocated;
    const size_t reserved = buf.allocated;
    ASSERT_TRUE(DynBuf_Append(&buf, piece.data(), piece.size()));
    model += piece;
    ASSERT_EQ(fits, buf.allocated == reserved);
  }
  EXPECT_TRUE(model == Content(buf));

  ScopedDynBuf copy;
  ASSERT_TRUE(DynBuf_Copy(&buf, &copy));
  EXPECT_NE(buf.data, copy.data);
  EXPECT_EQ(buf.allocated, copy.allocated);
  EXPECT_TRUE(model == Content(copy));
  ASSERT_TRUE(DynBuf_Trim(&copy));
  EXPECT_EQ(model.size(), copy.allocated);
  EXPECT_TRUE(model == Content(copy));
  copy.size = 0;
  ASSERT_TRUE(DynBuf_Trim(&copy));
  EXPECT_EQ(nullptr, copy.data);
  EXPECT_EQ(0u, copy.allocated);
}

TEST(DynBuf, TakesOverAndHandsOut) {
  DynBuf buf;
  DynBuf_InitWithString(&buf, Heap_SafeStrdup("twelve bytes").release());
  EXPECT_EQ(12u, buf.size);
  EXPECT_EQ(13u, buf.allocated);
  const HeapStr whole(DynBuf_DetachString(&buf));
  EXPECT_STREQ("twelve bytes", whole.get());
  EXPECT_EQ(nullptr, buf.data);
  EXPECT_EQ(0u, buf.allocated);
  EXPECT_EQ(12u, buf.size) << "the length stays readable";

  // Strings that need room for the NUL first.
  DynBuf_Init(&buf);
  const HeapStr empty(DynBuf_DetachString(&buf));
  EXPECT_STREQ("", empty.get());
  DynBuf_Attach(&buf, 12, Heap_SafeStrdup("twelve bytes").release());
  DynBuf_Attach(&buf, 4, Heap_SafeStrdup("four").release());
  const HeapStr grown(DynBuf_DetachString(&buf));
  EXPECT_STREQ("four", grown.get());
}

TEST(DynBuf, FailureChangesNothing) {
  ScopedDynBuf buf;
  ScopedDynBuf other;
  ASSERT_TRUE(DynBuf_Append(&buf, "content", 7));
  ExpectRefused(&buf, [&] { return DynBuf_Append(&buf, "", SIZE_MAX - 6); });
  ExpectRefused(&buf, [&] { return DynBuf_Append(&buf, "", SIZE_MAX - 7); });
  ExpectRefused(&buf, [&] { return DynBuf_Enlarge(&buf, SIZE_MAX); });
  const std::function<bool()> operations[] = {
      [&] { return DynBuf_Append(&buf, std::string(128, 'x').data(), 128); },
      [&] { return DynBuf_Enlarge(&buf, 0); },
      [&] { return DynBuf_Trim(&buf); },
      [&] { return DynBuf_Copy(&buf, &other); },
  };
  for (const auto &operation : operations) {
    const AllocFault fault(1);
    ExpectRefused(&buf, operation);
  }
  EXPECT_EQ(nullptr, other.data);
  EXPECT_EQ("content", Content(buf));

  // Sizes that no block has: the sums wrap before any memory is asked for.
  char block[1] = {'x'};
  DynBuf huge = {.data = block, .size = 1, .allocated = SIZE_MAX - 0x3ffff};
  ExpectRefused(&huge, [&] { return DynBuf_Enlarge(&huge, 0); });
}

TEST(DynBuf, SafeVariantsNameTheirCaller) {
  EXPECT_EQ("Panic: Unrecoverable memory allocation failure at lib/some/file:4000000000\n",
            FatalText([] {
              ScopedDynBuf buf;
              DynBuf_SafeAppend(&buf, "x", 1, "lib/some/file", 1);
              DynBuf_SafeEnlarge(&buf, SIZE_MAX, "lib/some/file", 4000000000);
            }));
  EXPECT_EQ("Panic: Unrecoverable memory allocation failure at lib/some/file:2\n", FatalText([] {
              const AllocFault fault(1);
              ScopedDynBuf buf;
              DynBuf_SafeAppend(&buf, "x", 1, "lib/some/file", 2);
            }));
  EXPECT_EQ("Panic: MEM_ALLOC lib/public/dynbuf:145\n", FatalText([] {
              const AllocFault fault(1);
              ScopedDynBuf buf;
              const HeapStr text(DynBuf_DetachString(&buf));
            }));
}

}  // namespace
