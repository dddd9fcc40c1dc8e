// lockStats_test.cpp -- what the statistics pass writes, byte for byte; the numbers in it against
// floating point; and the pass while locks come and go.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

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
    const std::string serial = " l=" + std::to_string(lock_->serialNumber) + " ";
    for (size_t at; (at = text.find(serial)) != std::string::npos;) {
      text.replace(at, serial.size(), " l=L ");
    }
    return text;
  }

  ~LockStats() override {
    MXUser_DestroyExclLock(lock_);
    MXUserSetStatsMode(0);
    MXUser_SetContentionFloors(0, 0, 0);
  }
};

TEST_F(LockStats, WithoutRecordsALockIsAnnouncedOnce) {
  Create(0);
  EXPECT_EQ("MXUser: n n=stat l=L r=0xff00\n", Pass());
  EXPECT_EQ("", Pass());
  EXPECT_EQ(nullptr, lock_->statsAction);
  EXPECT_FALSE(MXUser_SetContentionRatioFloorExclLock(lock_, 0.5));
  EXPECT_FALSE(MXUser_SetContentionCountFloorExclLock(lock_, 1));
  EXPECT_FALSE(MXUser_SetContentionDurationFloorExclLock(lock_, 1));
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
  EXPECT_TRUE(
      hot.ends_with("MXUser: h l=L t=a min=1000 max=10000000000 0-3 99-1 100-1 200-1 699-1\n"))
      << hot;
  EXPECT_NE(std::string::npos, hot.find("MXUser: h l=L t=h min=1000 max=10000000000\n"));
}

// Two bytes must stay free behind a bin.
TEST_F(LockStats, ALineTooLongForTheBufferEndsBeforeTheBinThatDoesNotFit) {
  MXUser_SetContentionFloors(UINT64_MAX, 0, 0);
  Create(1);
  EXPECT_EQ(nullptr, lock_->heldStats.Get());
  EXPECT_EQ("", CaptureOutput([&] { Pass(); }));  // hot by decree, without a record
  MXUserHisto *const histo = lock_->acquireStats.Get()->basic.histo.Get();
  for (const uint64_t time : {1000U, 10000U}) MXUserHistoSample(histo, time);
  const std::string head =
      "MXUser: h l=" + std::to_string(lock_->serialNumber) + " t=a min=1000 max=10000000000";
  const size_t length = head.size() + 1;
  const std::pair<size_t, std::string> rows[] = {
      {0, ""},
      {9, head.substr(0, 8)},
      {length, head},
      {length + 6, head + "\n"},
      {length + 7, head + " 0-1\n"},
      {length + 12, head + " 0-1\n"},
      {length + 13, head + " 0-1 100-1\n"},
  };
  for (const auto &[size, expected] : rows) {
    std::string text;
    MXUser_SetStatsFunc(&text, size, false, Append);
    MXUserStatsAction(lock_);
    EXPECT_EQ(expected, text) << size << " bytes";
  }
  MXUser_SetStatsFunc(nullptr, 0, false, nullptr);
}

// The list may be the caller's already; it is not waited for.
TEST_F(LockStats, ThePassTriesOnly) {
  Create(0);
  const MXUserListHolder list(MXUserListHolder::Mode::wait);
  std::string text;
  MXUser_SetStatsFunc(&text, 100, false, Append);
  std::thread(MXUser_PerLockData).join();
  EXPECT_EQ("", text);
  EXPECT_NE("", Pass());
}

TEST(LockStatsMode, OtherModesAreFatalToLocks) {
  EXPECT_EQ("Panic: MXUser_CreateRecLock: unknown stats mode: 3!\n", FatalText([] {
              MXUserSetStatsMode(3);
              std::ignore = MXUser_CreateRecLock("R", 0);
            }));
}

// ---- numbers ---------------------------------------------------------------------------------

TEST(LockStatsNumbers, ContentionIsTheLargerPart) {
  // Of ten attempts, of which so many succeeded, and were contended.
  const auto check = [](uint64_t successes, uint64_t contended, uint64_t floor, double ratioFloor) {
    MXUserAcquireStats stats;
    stats.numAttempts = 10;
    stats.numSuccesses.Set(successes);
    stats.numSuccessesContended.Set(contended);
    stats.countFloor.Set(floor);
    stats.ratioFloor.Set(ratioFloor);
    const auto [isHot, doLog, ratio] = MXUserCheckContention(stats);
    return std::tuple(isHot, doLog, ratio);
  };
  EXPECT_EQ(std::tuple(false, false, 0.6), check(4, 1, 0, 0));
  EXPECT_EQ(std::tuple(true, true, 0.75), check(4, 3, 10, 0.7));
  EXPECT_EQ(std::tuple(false, false, 0.75), check(4, 3, 10, 0.75));
  EXPECT_EQ(std::tuple(false, false, 0.0), check(4, 3, 11, 0));
  EXPECT_EQ(std::tuple(true, true, 1.0), check(0, 0, 1, 0.9));
  EXPECT_EQ(std::tuple(true, false, 0.0), check(4, 3, UINT64_MAX, 0));
}

TEST(LockStatsNumbers, LogarithmsAreCloseToThoseOfTheLibrary) {
  for (uint64_t x = 1; x < UINT64_MAX / 2; x += x / 997 + 1) {
    EXPECT_NEAR(65536 * std::log2(static_cast<double>(x)), MXUserLog10::Log2(x), 1.7) << x;
  }
  for (uint64_t value = 1000, decade = 0; decade <= 7; value *= 10, decade++) {
    EXPECT_EQ(100 * decade, MXUserLog10::Scaled(100, value, 1000));
    EXPECT_EQ(100 * decade + 17, MXUserLog10::Scaled(100, value / 2 * 3, 1000));
    EXPECT_EQ(100 * decade + 99, MXUserLog10::Scaled(100, value / 1000 * 9990, 1000));
  }
}

TEST(LockStatsNumbers, DeviationsEndAndAreRounded) {
  EXPECT_EQ(0U, MXUserStandardDeviation(1, 5, 26));
  EXPECT_EQ(0U, MXUserStandardDeviation(4, 20, 100));
  EXPECT_EQ(1U, MXUserStandardDeviation(2, 1, 1));  // 0.707
  for (int i = 0; i < 136; i++) {
    const double spread = 0.6 * std::pow(1.37, i);
    const double deviation = spread * std::sqrt(2.0);  // of -spread and spread
    EXPECT_NEAR(deviation, static_cast<double>(MXUserStandardDeviation(2, 0, 2 * spread * spread)),
                0.5 + deviation * 1e-15);
  }
  EXPECT_EQ(UINT64_MAX, MXUserStandardDeviation(3, 0, 0x1p132));
}

// ---- threads ---------------------------------------------------------------------------------

TEST(LockStatsThreads, ThePassMeetsLocksThatComeAndGo) {
  MXUser_SetContentionFloors(UINT64_MAX, 0, 0);
  MXUserSetStatsMode(2);
  std::string text;
  MXUser_SetStatsFunc(&text, 256, true, Append);
  std::array<std::thread, 3> threads;
  for (std::thread &thread : threads) {
    thread = std::thread([] {
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
  for (std::thread &thread : threads) thread.join();
  MXUser_SetStatsFunc(nullptr, 0, false, nullptr);
  MXUserSetStatsMode(0);

  // Each was named at most once.
  std::set<std::string> names;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("MXUser: n ")) continue;
    EXPECT_TRUE(names.insert(line).second) << line;
  }
  EXPECT_FALSE(names.empty());
}

}  // namespace
