// uncached.cpp -- open files that bypass the cache, on Linux, as far as posix_fadvise(2) allows.

#include "platform/uncached.h"

#include <fcntl.h>

#include <cerrno>

namespace {

// 0, or -1 with errno.
int Advise(int fd, int advice) {
  const int error = posix_fadvise(fd, 0, 0, advice);
  // A FIFO has no cache.
  if (error == 0 || error == ESPIPE) return 0;
  errno = error;
  return -1;
}

}  // namespace

int Platform_UncachedOpenFlags(bool synchronous) {
  return synchronous ? O_SYNC : 0;
}

int Platform_SetUncached(int fd, bool /*synchronous*/) {
  return Advise(fd, POSIX_FADV_DONTNEED) == 0 ? Advise(fd, POSIX_FADV_NOREUSE) : -1;
}
