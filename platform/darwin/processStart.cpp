// processStart.cpp -- start times of processes on macOS, from the kernel's process table.

#include "platform/processStart.h"

#include <signal.h>
#include <sys/sysctl.h>

#include <cerrno>

bool Platform_ProcessStartTime(pid_t pid, uint64_t *microseconds) {
  int mib[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, pid};
  kinfo_proc info;
  size_t size = sizeof info;
  // If there is no such process, the call succeeds with size 0.
  if (pid > 0 && sysctl(mib, 4, &info, &size, nullptr, 0) == 0 && size > 0) {
    if (info.kp_proc.p_stat == SZOMB) {
      *microseconds = 0;
      errno = ESRCH;
      return false;
    }
    const timeval &start = info.kp_proc.p_starttime;
    *microseconds =
        static_cast<uint64_t>(start.tv_sec) * 1000000 + static_cast<uint64_t>(start.tv_usec);
    return true;
  }
  *microseconds = 0;
  // A sandbox may hide the entries of other processes.
  if (pid > 0 && (kill(pid, 0) == 0 || errno == EPERM)) return true;
  errno = ESRCH;
  return false;
}

PlatformProcessWorld Platform_ProcessWorld() {
  return {};
}
