// log_test.cpp -- the records of the diagnostic log.

#include "log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>

#include "tests/support/allocFault.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"

namespace {

TEST(Log, StampsAreLocalTime) {
  // Half an hour off, so that no mistake about the zone goes unseen.
  setenv("TZ", "ODD-05:30", 1);
  tzset();
  const time_t before = time(nullptr);
  const std::string record = CaptureOutput([] { Log("x"); });
  tm local{};
  EXPECT_STREQ("| x", strptime(record.c_str(), "%Y-%m-%dT%H:%M:%S.", &local) + 3) << record;
  EXPECT_TRUE(mktime(&local) >= before && mktime(&local) <= time(nullptr)) << record;
}

TEST(Log, LogOpenTruncatesTheFileAndTakesAllFurtherRecordsOrNone) {
  const ScratchDir dir;
  const std::string old = dir.Write("old", std::string(5000, 'o')), fresh = dir.Path("fresh");
  const ChildResult result = RunInChild([&] {
    umask(0);
    const int first = LogOpen(old.c_str());
    Log("to old\n");
    const int second = LogOpen(fresh.c_str());
    Log("to fresh %d\n", first >= 0 && second > first);
    if (LogOpen(dir.Path("missing/log").c_str()) != -1 || errno != ENOENT) _exit(3);
    Panic("lost\n");
  });
  EXPECT_TRUE(result.exitStatus == 1 && result.output.empty()) << result.output;
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
