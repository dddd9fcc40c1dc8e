// scheduling.cpp -- how the host treats a process in comparison with others, on macOS.
//
// There is no binding to processors, and users have no say in which process is killed when memory
// runs out.  What a process cannot take off itself stays: a background state that another process
// imposed (taskpolicy -b -p), and a limit of quality of service that was given at posix_spawn.

#include "platform/scheduling.h"

#include <sys/resource.h>

void Platform_ResetScheduling() {
  setpriority(PRIO_PROCESS, 0, 0);
  setpriority(PRIO_DARWIN_PROCESS, 0, 0);  // out of the background: taskpolicy -b PROGRAM
  setiopolicy_np(IOPOL_TYPE_DISK, IOPOL_SCOPE_PROCESS, IOPOL_DEFAULT);
}
