// files.cpp -- opening with an exclusive lock, on Linux: open(2), then flock(2).

#include "platform/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "fd.h"

namespace {

// What O_TRUNC does; it means nothing to a FIFO or a device.
bool Empty(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) return false;
  return !S_ISREG(status.st_mode) || ftruncate(fd, 0) == 0;
}

}  // namespace

int Platform_OpenLocked(const char *path, int flags, mode_t mode) {
  // The file is emptied under the lock: before, it belongs to whoever holds that.
  Fd fd(open(path, (flags & ~O_TRUNC) | O_CLOEXEC, mode));
  const int wait = (flags & O_NONBLOCK) != 0 ? LOCK_NB : 0;
  if (!fd || flock(fd.Get(), LOCK_EX | wait) != 0) return -1;
  if ((flags & O_TRUNC) != 0 && !Empty(fd.Get())) return -1;
  return fd.Release();
}
