// lockStats_test.cpp -- what the statistics pass writes, byte for byte; the numbers in it against
// floating point; and the pass while locks come and go.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <regex>
#include <string>
#include <thread>

#include "lib/lock/mxUserLog10.h"
#include "lib/lock/mxUserStats.h"
#include "tests/support/capture.h"

namespace {

void Append(void *context, const char *line) {
  *static_cast<std::string *>(context) += line;
}

// A lock with statistics.
class LockStats : public testing::Test {
 protected:
  MXUserExclLock *lock_ = nullptr;

  void Create(int mode) {
    MXUserSetStatsMode(mode);
    lock_ = MXUser_CreateExclLock("stat", 0xFF00);
  }

  // What a pass writes, "L" standing for the serial number.
  std::string Pass(size_t lineLength = 1024) {
    std::string text;
    MXUser_SetStatsFunc(&text, lineLength, false, Append);
    MXUser_PerLockData();
    MXUser_SetStatsFunc(nullptr, 0, false, nullptr);
    return std::regex_replace(text, std::regex(" l=\\d+ "), " l=L ");
  }

  ~LockStats() override {
    MXUser_DestroyExclLock(lock_);
    MXUserSetStatsMode(0);
    MXUser_SetContentionFloors(0, 0, 0);
  }
};

// The list may be the caller's already; it is not waited for.
TEST_F(LockStats, WithoutRecordsALockIsAnnouncedOnceByWhoHasTheList) {
  Create(0);
  EXPECT_FALSE(MXUser_SetContentionCountFloorExclLock(lock_, 1));
  const MXUserListHolder list(MXUserListHolder::Mode::wait);
  std::string text;
  MXUser_SetStatsFunc(&text, 100, false, Append);
  std::thread(MXUser_PerLockData).join();
  EXPECT_EQ("", text);
  EXPECT_EQ("MXUser: n n=stat l=L r=0xff00\n", Pass());
  EXPECT_EQ("", Pass());
}

TEST_F(LockStats, LinesAreAsDocumented) {
  MXUser_SetContentionFloors(4, 100, 0.5);
  Create(2);
  EXPECT_EQ(
      "MXUser: n n=stat l=L r=0xff00\n"
      "MXUser: e l=L t=h c=0 min=18446744073709551615 max=0 mean=0 sd=0\n",
      Pass());
  MXUserAcquireStats *const acquire = lock_->acquireStats.Get();
  MXUserAcquisitionSample(acquire, false, true, 2000);
  EXPECT_NE(std::string::npos, Pass().find("MXUser: ce l=L a=1 s=0 sc=0 sct=0 t=2000\n"));
  MXUserAcquisitionSample(acquire, true, true, 99);  // too short to count
  MXUserAcquisitionSample(acquire, true, true, 100);
  MXUserAcquisitionSample(acquire, true, false, 102);
  for (const uint64_t time : {1000U, 2000U, 4000U}) {
    MXUserBasicStatsSample(&lock_->heldStats.Get()->basic, time);
  }
  const std::string lines =
      "MXUser: e l=L t=h c=3 min=1000 max=4000 mean=2333 sd=1528\n"
      "MXUser: e l=L t=a c=3 min=99 max=102 mean=100 sd=2\n"
      "MXUser: ce l=L a=4 s=3 sc=1 sct=100 t=2100\n";
  EXPECT_EQ(lines, Pass());  // one in three contended, one in four failed

  // A third of the acquisitions was contended, and that must exceed the floor.
  ASSERT_TRUE(MXUser_SetContentionRatioFloorExclLock(lock_, 0.33));
  EXPECT_EQ("HOT LOCK (stat); contention ratio 0.333333\n",
            WithoutStamps(CaptureOutput([&] { EXPECT_EQ(lines, Pass()); })));
  ASSERT_TRUE(MXUser_SetContentionCountFloorExclLock(lock_, 5));
  for (const uint64_t time : {UINT64_MAX / 2, 0UL, 999UL, 1000UL, 9999UL, 10000UL, 100000UL}) {
    MXUserBasicStatsSample(&acquire->basic, time);
  }
  const std::string hot = Pass();
  const std::string histo =
      "MXUser: h l=L t=a min=1000 max=10000000000 0-3 99-1 100-1 200-1 699-1\n";
  EXPECT_TRUE(hot.ends_with(histo)) << hot;
  // A bin is written if two bytes stay free behind it.
  const size_t room = histo.size() - 1 + std::to_string(lock_->serialNumber).size() + 3;
  EXPECT_TRUE(Pass(room).ends_with(" 699-1\n"));
  EXPECT_TRUE(Pass(room - 1).ends_with(" 200-1\n"));
  EXPECT_EQ("", Pass(0));
}

TEST(LockStatsNumbers, AreCloseToThoseOfTheLibrary) {
  for (uint64_t x = 1; x < UINT64_MAX / 2; x += x / 997 + 1) {
    EXPECT_NEAR(65536 * std::log2(static_cast<double>(x)), MXUserLog10::Log2(x), 1.7) << x;
  }
  for (int i = 0; i < 136; i++) {
    const double spread = 0.6 * std::pow(1.37, i);
    const double deviation = spread * std::sqrt(2.0);  // of -spread and spread
    EXPECT_NEAR(deviation, static_cast<double>(MXUserStandardDeviation(2, 0, 2 * spread * spread)),
                0.5 + deviation * 1e-15);
  }
  EXPECT_EQ(UINT64_MAX, MXUserStandardDeviation(3, 0, 0x1p132));
}

TEST(LockStatsThreads, ThePassMeetsLocksThatComeAndGo) {
  MXUser_SetContentionFloors(UINT64_MAX, 0, 0);
  MXUserSetStatsMode(2);
  std::string text;
  MXUser_SetStatsFunc(&text, 256, true, Append);
  for (std::array<std::jthread, 3> threads; std::jthread & thread : threads) {
    thread = std::jthread([] {
      for (int round = 0; round < 300; round++) {
        MXUserRecLock *const lock = MXUser_CreateRecLock("brief", 0);
        MXUser_AcquireRecLock(lock);
        MXUserAcquisitionSample(lock->acquireStats.Get(), true, true, 5000);
        MXUser_PerLockData();
        MXUserBasicStatsSample(&lock->heldStats.Get()->basic, 5000);
        MXUser_ReleaseRecLock(lock);
        MXUser_DestroyRecLock(lock);
      }
    });
  }
  MXUser_SetStatsFunc(nullptr, 0, false, nullptr);
  MXUserSetStatsMode(0);

  EXPECT_NE(std::string::npos, text.find("MXUser: ce "));
}

}  // namespace
