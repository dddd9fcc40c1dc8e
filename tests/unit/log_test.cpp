// log_test.cpp -- the records of the diagnostic log.
//
// Linked with --wrap=malloc and its like, so that allocations of the product's code are seen.

#include "log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>

#include "str.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"

namespace {

int allocations = 0;

constexpr size_t kStampSize = sizeof "2024-03-05T09:07:02.045| " - 1;

int64_t NowMs() {
  timeval now;
  gettimeofday(&now, nullptr);
  return int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000;
}

// The time that a record's stamp states; -1 when it has not exactly the form of one.
int64_t StampMs(const std::string &record) {
  tm local{};
  int ms = -1;
  int end = -1;
  if (sscanf(record.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3d| %n", &local.tm_year, &local.tm_mon,
             &local.tm_mday, &local.tm_hour, &local.tm_min, &local.tm_sec, &ms, &end) != 7 ||
      end != static_cast<int>(kStampSize)) {
    return -1;
  }
  local.tm_year -= 1900;
  local.tm_mon -= 1;
  local.tm_isdst = -1;
  return int64_t{mktime(&local)} * 1000 + ms;
}

// Half an hour off, so that no mistake about the zone goes unseen; far from any change of the
// clock.
void SetOddTimeZone() {
  setenv("TZ", "ODD-05:30", 1);
  tzset();
}

}  // namespace

extern "C" {
void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_realloc(void *old, size_t size);

void *__wrap_malloc(size_t size) {
  allocations++;
  return __real_malloc(size);
}
void *__wrap_calloc(size_t count, size_t size) {
  allocations++;
  return __real_calloc(count, size);
}
void *__wrap_realloc(void *old, size_t size) {
  allocations++;
  return __real_realloc(old, size);
}
}

namespace {

TEST(Log, WritesTagsAndTextsAsTheyAre) {
  const std::string records = CaptureOutput([] {
    Log("%s: started, %d%%\n", "F", 7);
    Warning("%s: x %d.\n", "F", 5);
    Warning("no newline");
    Log("%s", "");
    Log("next\n");
  });
  EXPECT_EQ("F: started, 7%\nWarning: F: x 5.\nWarning: no newlinenext\n", WithoutStamps(records));
  EXPECT_EQ("Panic: out of 3\n", FatalText([] { Panic("out of %d\n", 3); }));
}

TEST(Log, StampsAreLocalTimeCutToMilliseconds) {
  SetOddTimeZone();
  for (int i = 0; i < 100; i++) {
    const int64_t before = NowMs();
    const std::string record = CaptureOutput([] { Log("x"); });
    const int64_t after = NowMs();
    ASSERT_EQ(kStampSize + 1, record.size()) << record;
    // A rounded stamp lies in the future half of the time.
    ASSERT_LE(before, StampMs(record)) << record;
    ASSERT_GE(after, StampMs(record)) << record;
    usleep(37);
  }
}

TEST(Log, DropsTheBodyThatDoesNotFit) {
  for (const size_t size : {size_t{1022}, size_t{1023}, size_t{1024}, size_t{2000}}) {
    SCOPED_TRACE(size);
    const std::string body(size, 'b');
    const std::string records = CaptureOutput([&] {
      Warning("%s", body.c_str());
      Log("next");
    });
    EXPECT_EQ("Warning: " + (size < 1024 ? body : "") + "next", WithoutStamps(records));
  }
}

TEST(Log, LogOpenTruncatesTheFileAndTakesAllFurtherRecords) {
  const ScratchDir dir;
  const std::string old = dir.Write("old", std::string(5000, 'o'));
  const std::string fresh = dir.Path("fresh");
  const ChildResult result = RunInChild([&] {
    umask(0);
    const int first = LogOpen(old.c_str());
    Log("to old\n");
    const int second = LogOpen(fresh.c_str());
    Log("to ");
    Panic("fresh %d\n", first >= 0 && second > first);
  });
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_EQ("", result.output);
  EXPECT_EQ("to old\n", WithoutStamps(ReadFile(old)));
  EXPECT_EQ("to Panic: fresh 1\n", WithoutStamps(ReadFile(fresh)));
  struct stat status;
  ASSERT_EQ(0, stat(fresh.c_str(), &status));
  EXPECT_EQ(0644U, status.st_mode & 07777U);
}

TEST(Log, AFileThatCannotBeOpenedSwitchesTheLogOff) {
  const ScratchDir dir;
  const std::string path = dir.Path("missing/log");
  const ChildResult result = RunInChild([&] {
    if (LogOpen(path.c_str()) != -1 || errno != ENOENT) _exit(3);
    Log("lost\n");
    Panic("lost, too\n");
  });
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_EQ("", result.output);
}

TEST(Log, PanicEndsTheProcessWhenNothingCanBeWritten) {
  const ChildResult result = RunInChild([] {
    close(STDOUT_FILENO);
    Panic("lost\n");
  });
  EXPECT_EQ(1, result.exitStatus);
}

TEST(Log, AllocatesNothing) {
  int counted = -1;
  const std::string body(1500, 'b');
  CaptureOutput([&] {
    const int before = allocations;
    Log("%s %d %%\n", "text", 7);
    Warning("%s", body.c_str());
    counted = allocations - before;
  });
  EXPECT_EQ(0, counted);
  // The counter counts: the same formatter with a new string.
  const int before = allocations;
  free(Str_Asprintf(nullptr, "%d", 1));
  EXPECT_LT(before, allocations);
}

}  // namespace
