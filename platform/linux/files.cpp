// files.cpp -- opening with an exclusive lock, on Linux: open(2), then flock(2).

#include "platform/files.h"

#include <fcntl.h>
#include <sys/file.h>

#include "fd.h"

int Platform_OpenLocked(const char *path, int flags, mode_t mode) {
  Fd fd(open(path, flags | O_CLOEXEC, mode));
  if (!fd || flock(fd.Get(), LOCK_EX) != 0) return -1;
  return fd.Release();
}
