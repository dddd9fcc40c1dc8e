// decimalDigitsDarwin_test.cpp -- macOS's ecvt and fcvt share their memory among all threads:
// whoever calls them alone and copies before letting go gets digits that nobody else writes over.

#include <gtest/gtest.h>
#include <sched.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "heap.h"
#include "platform/decimalDigits.h"

namespace {

char shared[32];  // on purpose without a lock

char *Convert(const char *kind, double value, int *point, int *sign) {
  if (value < 0) return nullptr;  // no memory
  *point = static_cast<int>(value);
  *sign = 0;
  snprintf(shared, sizeof shared, "%s", kind);
  sched_yield();
  snprintf(shared + 1, sizeof shared - 1, "%d", *point);
  return shared;
}

TEST(DecimalDigitsDarwin, ThreadsDoNotShareDigits) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int n = 0; n < 2000; ++n) {
        int point = -1;
        const bool isFixed = n % 2 == 0;
        const HeapStr digits(isFixed ? Platform_FixedDigits(i + n, 6, &point)
                                     : Platform_SignificantDigits(i + n, 6, &point));
        ASSERT_EQ((isFixed ? "f" : "e") + std::to_string(i + n), digits.get());
        ASSERT_EQ(i + n, point);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}

TEST(DecimalDigitsDarwin, NoMemoryIsNoDigits) {
  int point;
  EXPECT_EQ(nullptr, Platform_FixedDigits(-1, 6, &point));
  // The lock was given back.
  EXPECT_STREQ("e5", HeapStr(Platform_SignificantDigits(5, 6, &point)).get());
}

}  // namespace

extern "C" {
char *fakeEcvt(double value, int, int *point, int *sign) noexcept {
  return Convert("e", value, point, sign);
}
char *fakeFcvt(double value, int, int *point, int *sign) noexcept {
  return Convert("f", value, point, sign);
}
}
