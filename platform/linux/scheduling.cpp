// scheduling.cpp -- priorities on Linux.
// Tests: tests/system/service_test.cpp

#include "platform/scheduling.h"

#include <fcntl.h>
#include <linux/ioprio.h>
#include <linux/mempolicy.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "lib/public/fd.h"

namespace {

constexpr size_t kMaxProcessors = 8192;  // more than any kernel is built for
constexpr unsigned long kTimerSlackNs = 50'000;

// The kernel intersects the set with the processors of the machine and of the process's cpuset.
void AllowAllProcessors() {
  static cpu_set_t all[kMaxProcessors / CPU_SETSIZE];
  memset(all, 0xff, sizeof all);
  sched_setaffinity(0, sizeof all, all);
}

// A score below 0, which only root can set, is a protection and is kept.
void ResetOutOfMemoryScore() {
  const Fd file(open("/proc/self/oom_score_adj", O_RDWR | O_CLOEXEC));
  char text[16] = {};
  if (file && read(file.Get(), text, sizeof text - 1) > 0 && strtol(text, nullptr, 10) > 0) {
    [[maybe_unused]] const ssize_t written = pwrite(file.Get(), "0", 1, 0);
  }
}

}  // namespace

void Platform_ResetScheduling() {
  const sched_param none = {};
  sched_setscheduler(0, SCHED_OTHER, &none);
  setpriority(PRIO_PROCESS, 0, 0);
  syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, 0);  // derived from the nice value
  syscall(SYS_set_mempolicy, MPOL_DEFAULT, nullptr, 0UL);
  prctl(PR_SET_TIMERSLACK, kTimerSlackNs, 0UL, 0UL, 0UL);
  AllowAllProcessors();
  ResetOutOfMemoryScore();
}
