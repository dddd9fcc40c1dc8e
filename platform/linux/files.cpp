// files.cpp -- opening with an exclusive lock, and without side effects, on Linux.
// Tests: tests/unit/fileIO_test.cpp, tests/system/staging_test.cpp, verifier_test.cpp, faults_test.cpp

#include "platform/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cstdio>

namespace {

// As O_TRUNC, which has no effect on FIFOs and devices.
bool Empty(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) return false;
  return !S_ISREG(status.st_mode) || ftruncate(fd, 0) == 0;
}

}  // namespace

Fd Platform_OpenRegularOrDirectory(int dir, const char *name) {
  // O_PATH finds the file without opening it, so its kind is known first.  It is then opened for reading
  // through the descriptor's link in /proc, which leads to that file whatever the name refers to by then.
  const Fd found(openat(dir, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat info;
  if (!found || fstat(found.Get(), &info) != 0) return Fd();
  if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode)) {
    errno = S_ISLNK(info.st_mode) ? ELOOP : ENOTSUP;
    return Fd();
  }
  char link[sizeof "/proc/self/fd/" + 10];
  snprintf(link, sizeof link, "/proc/self/fd/%d", found.Get());
  // O_NONBLOCK: do not wait for the owner of the file to give up a lease.
  return Fd(open(link, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

int Platform_OpenLocked(const char *path, int flags, mode_t mode) {
  // Truncated only under the lock: until then the content belongs to the lock's holder.
  Fd fd(open(path, (flags & ~O_TRUNC) | O_CLOEXEC, mode));
  const int wait = (flags & O_NONBLOCK) != 0 ? LOCK_NB : 0;
  if (!fd || flock(fd.Get(), LOCK_EX | wait) != 0) return -1;
  if ((flags & O_TRUNC) != 0 && !Empty(fd.Get())) return -1;
  return fd.Release();
}
