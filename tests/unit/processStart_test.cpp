// processStart_test.cpp -- start times of processes: the same for all who ask, and none for the dead.

#include "platform/processStart.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <tuple>

#include "tests/support/darwin/sys/sysctl.h"
#include "tests/support/sysFault.h"

// platform/darwin/processStart.cpp under another name, with the table below.
bool DarwinProcessStartTime(pid_t pid, uint64_t *microseconds);

namespace {
enum class Answer { Entry, Nothing, Refusal } answer;
}

int sysctl(int *mib, unsigned length, void *old, size_t *oldLength, void *, size_t) {
  EXPECT_TRUE(length == 4 && mib[0] == CTL_KERN && mib[1] == KERN_PROC && mib[2] == KERN_PROC_PID);
  EXPECT_EQ(sizeof(kinfo_proc), *oldLength);
  *oldLength = answer == Answer::Entry ? sizeof(kinfo_proc) : 0;
  if (answer == Answer::Entry)
    static_cast<kinfo_proc *>(old)->kp_proc.p_starttime = {1600000000, 7};
  errno = EPERM;
  return answer == Answer::Refusal ? -1 : 0;
}

namespace {

TEST(ProcessStart, IsTheSameForAllWhoAsk) {
  uint64_t own, start;
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
  EXPECT_TRUE(Platform_ProcessStartTime(child, &start));  // a zombie
  waitpid(child, nullptr, 0);
  for (const pid_t gone : {child, 0, -1}) {
    errno = 0;
    EXPECT_TRUE(!Platform_ProcessStartTime(gone, &start) && errno == ESRCH);
  }
  // As where /proc is not there, or not all of it.
  for (int n = 1; n <= 2; n++) {
    const SysFault fault("open", n, ENOENT);
    EXPECT_TRUE(Platform_ProcessStartTime(getpid(), &start) && fault.Fired() && start == 0);
  }
}

// The table of macOS says "none" by an empty answer, and "no" in a sandbox.
TEST(ProcessStart, OnDarwinOnlyWhoExistsHasOne) {
  constexpr pid_t kNobody = 0x7FFFFFF0;
  constexpr uint64_t kStart = 1600000000000007;
  for (const auto &[given, pid, exists, expected] :
       {std::tuple(Answer::Entry, getpid(), true, kStart),
        std::tuple(Answer::Nothing, kNobody, false, uint64_t{0}),
        std::tuple(Answer::Refusal, getpid(), true, uint64_t{0}),
        std::tuple(Answer::Refusal, kNobody, false, uint64_t{0}),
        std::tuple(Answer::Entry, 0, false, uint64_t{0})}) {
    answer = given;
    uint64_t start = 1;
    EXPECT_EQ(exists, DarwinProcessStartTime(pid, &start));
    EXPECT_TRUE(start == expected && (exists || errno == ESRCH));
  }
}

}  // namespace
