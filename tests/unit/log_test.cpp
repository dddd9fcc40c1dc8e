// log_test.cpp -- the records of the diagnostic log.

#include "log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>

#include "tests/support/allocFault.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"

namespace {

// The time that a record's stamp states; -1 when it has not the form of one.
int64_t StampMs(const std::string &record) {
  tm local{};
  const char *const rest = strptime(record.c_str(), "%Y-%m-%dT%H:%M:%S.", &local);
  local.tm_isdst = -1;
  return rest == nullptr ? -1 : int64_t{mktime(&local)} * 1000 + strtol(rest, nullptr, 10);
}

TEST(Log, StampsAreLocalTimeCutToMilliseconds) {
  using namespace std::chrono;
  const auto now = [] {
    return floor<milliseconds>(system_clock::now().time_since_epoch()).count();
  };
  // Half an hour off, so that no mistake about the zone goes unseen.
  setenv("TZ", "ODD-05:30", 1);
  tzset();
  for (int i = 0; i < 100; i++) {
    const int64_t before = now();
    const std::string record = CaptureOutput([] { Log("x"); });
    // A rounded stamp lies in the future half of the time.
    ASSERT_LE(before, StampMs(record)) << record;
    ASSERT_GE(now(), StampMs(record)) << record;
  }
}

TEST(Log, LogOpenTruncatesTheFileAndTakesAllFurtherRecordsOrNone) {
  const ScratchDir dir;
  const std::string old = dir.Write("old", std::string(5000, 'o'));
  const std::string fresh = dir.Path("fresh");
  const ChildResult result = RunInChild([&] {
    umask(0);
    const int first = LogOpen(old.c_str());
    Log("to old\n");
    const int second = LogOpen(fresh.c_str());
    Log("to fresh %d\n", first >= 0 && second > first);
    if (LogOpen(dir.Path("missing/log").c_str()) != -1 || errno != ENOENT) _exit(3);
    Panic("lost\n");
  });
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_EQ("", result.output);
  EXPECT_EQ("to old\n", WithoutStamps(ReadFile(old)));
  EXPECT_EQ("to fresh 1\n", WithoutStamps(ReadFile(fresh)));
  EXPECT_EQ(std::filesystem::perms{0644}, std::filesystem::status(fresh).permissions());
}

TEST(Log, AllocatesNothingAndDropsTheBodyThatDoesNotFit) {
  const std::string body(1023, 'b');
  const AllocFault fault(1);
  const std::string records = CaptureOutput([&] {
    Warning("%s", body.c_str());
    Warning("%s!", body.c_str());
    Log("%d%%\n", 7);
  });
  EXPECT_FALSE(fault.Fired());
  EXPECT_EQ("Warning: " + body + "Warning: 7%\n", WithoutStamps(records));
}

}  // namespace
