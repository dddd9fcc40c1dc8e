// processStartDarwin_test.cpp -- start times on macOS, whose table says "none" by an empty answer.

#include <gtest/gtest.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/processStart.h"

namespace {
enum class Answer { Entry, Nothing, Refusal } answer;
}

int sysctl(int *mib, unsigned length, void *old, size_t *oldLength, void *, size_t) {
  EXPECT_EQ(4U, length);
  EXPECT_TRUE(mib[0] == CTL_KERN && mib[1] == KERN_PROC && mib[2] == KERN_PROC_PID && mib[3] > 0);
  EXPECT_EQ(sizeof(kinfo_proc), *oldLength);
  *oldLength = answer == Answer::Entry ? sizeof(kinfo_proc) : 0;
  if (answer == Answer::Entry)
    static_cast<kinfo_proc *>(old)->kp_proc.p_starttime = {1600000000, 7};
  errno = EPERM;
  return answer == Answer::Refusal ? -1 : 0;
}

namespace {

TEST(ProcessStartDarwin, OnlyWhoExistsHasOne) {
  constexpr pid_t kNobody = 0x7FFFFFF0;
  struct Row {
    Answer answer;
    pid_t pid;
    bool exists;
    uint64_t start;
  };
  for (const Row &row : {
           Row{Answer::Entry, getpid(), true, 1600000000000007},
           Row{Answer::Nothing, kNobody, false, 0},
           Row{Answer::Refusal, getpid(), true, 0},  // a sandbox
           Row{Answer::Refusal, kNobody, false, 0},
           Row{Answer::Entry, 0, false, 0},
       }) {
    answer = row.answer;
    uint64_t start = 1;
    EXPECT_EQ(row.exists, Platform_ProcessStartTime(row.pid, &start));
    EXPECT_EQ(row.start, start);
    EXPECT_TRUE(row.exists || errno == ESRCH);
  }
}

}  // namespace
