// processStart_test.cpp -- start times of processes: the same for all who ask, and none for the dead.

#include "platform/processStart.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "tests/support/sysFault.h"

namespace {

TEST(ProcessStart, IsTheSameForAllWhoAsk) {
  uint64_t own;
  ASSERT_TRUE(Platform_ProcessStartTime(getpid(), &own));
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_NAME, "a) R 1 (b");  // stands in the middle of what the host tells
    uint64_t parents, mine;
    const bool same = Platform_ProcessStartTime(getppid(), &parents) && parents == own &&
                      Platform_ProcessStartTime(getpid(), &mine) && mine - own < 60'000'000;
    _exit(same ? 42 : 1);
  }
  siginfo_t info;
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT));
  EXPECT_EQ(42, info.si_status);
  uint64_t start;
  EXPECT_TRUE(Platform_ProcessStartTime(child, &start));  // a zombie
  waitpid(child, nullptr, 0);
  for (const pid_t gone : {child, 0, -1}) {
    errno = 0;
    EXPECT_FALSE(Platform_ProcessStartTime(gone, &start));
    EXPECT_EQ(ESRCH, errno);
  }
}

// As where /proc is not there, or not all of it.
TEST(ProcessStart, IsUnknownWhenTheHostDoesNotTell) {
  for (int n = 1; n <= 2; n++) {
    const SysFault fault("open", n, ENOENT);
    uint64_t start = 1;
    EXPECT_TRUE(Platform_ProcessStartTime(getpid(), &start));
    EXPECT_EQ(0U, start);
    EXPECT_TRUE(fault.Fired());
  }
}

}  // namespace
