// sealItem.cpp -- what a seal can be for: a regular file or a directory.

#include "platform/linux/sealItem.h"

#include <fcntl.h>
#include <sys/stat.h>

Fd SealOpenItem(const char *path) {
  // O_NONBLOCK: a FIFO in its place shall not make anybody wait.
  Fd fd(open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat info;
  if (!fd || fstat(fd.Get(), &info) != 0) return Fd();
  if (S_ISREG(info.st_mode) || S_ISDIR(info.st_mode)) return fd;
  errno = ENOTSUP;
  return Fd();
}

bool SealIsDirectory(int item) {
  struct stat info;
  return fstat(item, &info) == 0 && S_ISDIR(info.st_mode);
}
