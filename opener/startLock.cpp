// startLock.cpp -- only one opener at a time may start the daemon.
// Tests: tests/system/startLock_test.cpp, handoff_test.cpp

#include "opener/startLock.h"

#include <fcntl.h>

#include <cerrno>

#include "lib/public/heap.h"
#include "lib/public/str.h"
#include "platform/files.h"

int StartLockTake(const char *lockPath) {
  const HeapStr path(Str_Asprintf(nullptr, "%s.start", lockPath));
  if (path == nullptr) {
    errno = ENOMEM;
    return -1;
  }
  return Platform_OpenLocked(path.get(), O_CREAT | O_NONBLOCK, 0600);
}
