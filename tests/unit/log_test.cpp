// log_test.cpp -- the records of the diagnostic log.  Linked with --wrap=gettimeofday.

#include "log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>

#include "tests/support/allocFault.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"

namespace {

TEST(Log, StampsAreLocalTimeCutToMilliseconds) {
  // Half an hour off, so that no mistake about the zone goes unseen.
  setenv("TZ", "ODD-05:30", 1);
  tzset();
  EXPECT_EQ("2024-03-05T09:07:02.045| x", CaptureOutput([] { Log("x"); }));
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

extern "C" int __wrap_gettimeofday(timeval *time, void * /*zone*/) {
  *time = {1709609822, 45999};
  return 0;
}
