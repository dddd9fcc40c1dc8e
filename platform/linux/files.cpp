// files.cpp -- opening with an exclusive lock, and without side effects, on Linux.
// Tests: tests/unit/fileIO_test.cpp, fileTree_test.cpp, tests/system/staging_test.cpp, verifier_test.cpp,
//        faults_test.cpp

#include "platform/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

// Opens once more the very file that is open as `fd`, whatever its name leads to by now.
Fd Reopen(int fd, int flags) {
  char link[sizeof "/proc/self/fd/" + 10];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  return Fd(open(link, flags | O_NONBLOCK | O_CLOEXEC));
}

// The descriptor by which the file open as `fd` is emptied; *writer owns it if it is another one.
// macOS lets O_TRUNC empty a file that is opened for reading only, by the right to write to it;
// ftruncate(2) needs a descriptor for writing.  -1 with errno, EISDIR for a directory.
int OpenToEmpty(int fd, int flags, Fd *writer) {
  struct stat info;
  if (fstat(fd, &info) != 0) return -1;
  if (S_ISDIR(info.st_mode)) {
    errno = EISDIR;
    return -1;
  }
  // O_TRUNC means nothing to a FIFO or a device.
  if (!S_ISREG(info.st_mode) || (flags & O_ACCMODE) != O_RDONLY) return fd;
  *writer = Reopen(fd, O_WRONLY);
  return writer->Get();
}

// What O_TRUNC does.
bool Empty(int fd) {
  struct stat info;
  return fstat(fd, &info) == 0 && (!S_ISREG(info.st_mode) || ftruncate(fd, 0) == 0);
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
  // O_NONBLOCK: this does not wait for a lease that the file's owner has taken.
  return Reopen(found.Get(), O_RDONLY);
}

int Platform_OpenLocked(const char *path, int flags, mode_t mode) {
  // The file is emptied under the lock: until then it belongs to the holder of the lock.
  Fd fd(open(path, (flags & ~O_TRUNC) | O_CLOEXEC, mode));
  if (!fd) return -1;
  Fd writer;
  const int toEmpty = (flags & O_TRUNC) != 0 ? OpenToEmpty(fd.Get(), flags, &writer) : fd.Get();
  const int wait = (flags & O_NONBLOCK) != 0 ? LOCK_NB : 0;
  if (toEmpty < 0 || flock(fd.Get(), LOCK_EX | wait) != 0) return -1;
  if ((flags & O_TRUNC) != 0 && !Empty(toEmpty)) return -1;
  return fd.Release();
}
