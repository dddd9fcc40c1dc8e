// linkAddressDarwin_test.cpp -- link-level addresses of macOS, in records of any length.

#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if_dl.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>

#include "heap.h"
#include "platform/linkAddress.h"

namespace {

TEST(LinkAddressDarwin, TakesWhatTheRecordHolds) {
  const struct {
    uint8_t length, nameLength, addressLength;
    PlatformLinkAddress expected;
  } rows[] = {
      {40, 15, 8, {1, 2, 3, 4, 5, 6}},  // longer than the declared structure, and a longer address
      {20, 3, 4, {1, 2, 3, 4, 0, 0}},   // a shorter address
      {14, 3, 6, {1, 2, 3, 0, 0, 0}},   // the record ends inside the address
      {9, 200, 6, {}},                  // ... inside the name
      {2, 3, 6, {}},                    // ... before the lengths
  };
  for (const auto &row : rows) {
    std::array<uint8_t, 256> whole{row.length, AF_LINK, 0, 0, 0, row.nameLength, row.addressLength};
    std::iota(whole.begin() + offsetof(sockaddr_dl, sdl_data) + row.nameLength, whole.end(), 1);
    // In a block of its own length, so that reading past the end is seen.
    const HeapArray<uint8_t> record = Heap_Array<uint8_t>(row.length);
    memcpy(record.get(), whole.data(), row.length);
    ifaddrs entry{};
    PlatformLinkAddress address;
    EXPECT_FALSE(Platform_LinkAddress(entry, &address));
    entry.ifa_addr = reinterpret_cast<sockaddr *>(record.get());
    EXPECT_TRUE(Platform_LinkAddress(entry, &address));
    EXPECT_EQ(row.expected, address) << int{row.length} << ' ' << int{row.nameLength};
    record[1] = AF_INET;
    EXPECT_FALSE(Platform_LinkAddress(entry, &address));
  }
}

}  // namespace
