// files.cpp -- opening with an exclusive lock, and without side effects, on macOS.
//
// Tests: tests/unit/darwin_test.cpp

#include "platform/files.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

bool IsRegularOrDirectory(const struct stat &info) {
  if (S_ISREG(info.st_mode) || S_ISDIR(info.st_mode)) return true;
  errno = S_ISLNK(info.st_mode) ? ELOOP : ENOTSUP;
  return false;
}

}  // namespace

Fd Platform_OpenRegularOrDirectory(int dir, const char *name) {
  // macOS cannot refer to a file without opening it, so its kind is checked by name first, and again
  // after opening.
  struct stat info;
  if (fstatat(dir, name, &info, AT_SYMLINK_NOFOLLOW) != 0 || !IsRegularOrDirectory(info)) {
    return Fd();
  }
  Fd fd(openat(dir, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd || fstat(fd.Get(), &info) != 0 || !IsRegularOrDirectory(info)) return Fd();
  return fd;
}

int Platform_OpenLocked(const char *path, int flags, mode_t mode) {
  return open(path, flags | O_EXLOCK | O_CLOEXEC, mode);
}
