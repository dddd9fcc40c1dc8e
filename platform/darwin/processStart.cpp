// processStart.cpp -- when a process started, on macOS: from the kernel's table of processes.

#include "platform/processStart.h"

#include <signal.h>
#include <sys/sysctl.h>

#include <cerrno>

bool Platform_ProcessStartTime(pid_t pid, uint64_t *microseconds) {
  int mib[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, pid};
  kinfo_proc info;
  size_t size = sizeof info;
  // Without such a process the call succeeds, with nothing.
  if (pid > 0 && sysctl(mib, 4, &info, &size, nullptr, 0) == 0 && size > 0) {
    const timeval &start = info.kp_proc.p_starttime;
    *microseconds =
        static_cast<uint64_t>(start.tv_sec) * 1000000 + static_cast<uint64_t>(start.tv_usec);
    return true;
  }
  *microseconds = 0;
  // A sandbox may keep processes from each other's entries.
  if (pid > 0 && (kill(pid, 0) == 0 || errno == EPERM)) return true;
  errno = ESRCH;
  return false;
}
