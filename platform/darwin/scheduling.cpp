// scheduling.cpp -- priorities on macOS.
//
// macOS has no CPU affinity, and users cannot choose which process is killed when memory runs out.  A
// process cannot undo a background state imposed by another process (taskpolicy -b -p), nor a
// quality-of-service limit given at posix_spawn.

#include "platform/scheduling.h"

#include <sys/resource.h>

void Platform_ResetScheduling() {
  setpriority(PRIO_PROCESS, 0, 0);
  setpriority(PRIO_DARWIN_PROCESS, 0, 0);  // leaves the background: taskpolicy -b PROGRAM
  setiopolicy_np(IOPOL_TYPE_DISK, IOPOL_SCOPE_PROCESS, IOPOL_DEFAULT);
}
