// platformDarwin_test.cpp -- small pieces of the macOS platform code, against fakes of its calls.

#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if_dl.h>
#include <sched.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "heap.h"
#include "platform/decimalDigits.h"
#include "platform/linkAddress.h"

namespace {

// Records of any length.
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

// ecvt and fcvt share their memory among all threads: whoever calls them alone and copies before
// letting go gets digits that nobody else writes over.

char shared[32];  // on purpose without a lock

char *Convert(const char *kind, double value, int *point) {
  if (value < 0) return nullptr;  // no memory
  *point = static_cast<int>(value);
  snprintf(shared, sizeof shared, "%s", kind);
  sched_yield();
  snprintf(shared + 1, sizeof shared - 1, "%d", *point);
  return shared;
}

TEST(DecimalDigitsDarwin, ThreadsDoNotShareDigits) {
  int noPoint;
  EXPECT_EQ(nullptr, Platform_FixedDigits(-1, 6, &noPoint));  // and the lock was given back
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int n = i, point = -1; n < 2000; ++n) {
        const HeapStr fixed(Platform_FixedDigits(n, 6, &point));
        ASSERT_EQ("f" + std::to_string(n), fixed.get());
        const HeapStr significant(Platform_SignificantDigits(n, 6, &point));
        ASSERT_EQ("e" + std::to_string(point), significant.get());
      }
    });
  }
}

}  // namespace

extern "C" {
char *fakeEcvt(double value, int, int *point, int *) noexcept {
  return Convert("e", value, point);
}
char *fakeFcvt(double value, int, int *point, int *) noexcept {
  return Convert("f", value, point);
}
}
