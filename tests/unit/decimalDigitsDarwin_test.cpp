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
  int noPoint;
  EXPECT_EQ(nullptr, Platform_FixedDigits(-1, 6, &noPoint));  // and the lock was given back
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int n = i; n < 2000; ++n) {
        int point = -1;
        const HeapStr digits(n % 2 == 0 ? Platform_FixedDigits(n, 6, &point)
                                        : Platform_SignificantDigits(n, 6, &point));
        ASSERT_EQ((n % 2 == 0 ? "f" : "e") + std::to_string(n), digits.get());
        ASSERT_EQ(n, point);
      }
    });
  }
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
