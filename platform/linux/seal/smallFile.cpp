// smallFile.cpp -- reads a whole small file, opened without following symbolic links.
// Tests: tests/unit/seal_test.cpp, tests/system/codeseal_test

#include "platform/linux/seal/smallFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "platform/files.h"

namespace {

constexpr int kDirectoryFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool IsRegular(int fd) {
  struct stat info;
  if (fstat(fd, &info) != 0) return false;
  errno = EINVAL;
  return S_ISREG(info.st_mode);
}

}  // namespace

bool SmallFileIsItemsFault(int error) {
  static constexpr int kFaults[] = {EFBIG,   EINVAL, ELOOP,   ENAMETOOLONG,
                                    ENODATA, ENOENT, ENOTDIR, ENOTSUP};
  return std::ranges::find(kFaults, error) != std::end(kFaults);
}

bool SmallFileAny(int) {
  return true;
}

bool SmallFileOnlyRootMayWrite(int fd) {
  struct stat info;
  if (fstat(fd, &info) != 0) return false;
  errno = EPERM;
  return info.st_uid == 0 && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

Fd SmallFileOpen(int start, const char *path, SmallFileAccept accept) {
  Fd here;
  int at = start;
  while (accept(at)) {
    const size_t length = strcspn(path, "/");
    const bool last = path[length] == '\0';
    char name[NAME_MAX + 1];
    if (length >= sizeof name) {
      errno = ENAMETOOLONG;
      break;
    }
    *static_cast<char *>(mempcpy(name, path, length)) = '\0';
    Fd next =
        last ? Platform_OpenRegularOrDirectory(at, name) : Fd(openat(at, name, kDirectoryFlags));
    if (!next) break;
    if (last) return IsRegular(next.Get()) && accept(next.Get()) ? std::move(next) : Fd();
    here = std::move(next);
    at = here.Get();
    path += length + 1;
  }
  return Fd();
}

bool SmallFileRead(int fd, size_t limit, SmallFileBytes *bytes) {
  struct stat info;
  if (fstat(fd, &info) != 0) return false;
  if (info.st_size < 0 || static_cast<size_t>(info.st_size) > limit) {
    errno = EFBIG;
    return false;
  }
  // One byte more than its size, to notice if it grows meanwhile.
  const size_t room = static_cast<size_t>(info.st_size) + 1;
  SmallFileBytes found{Heap_Array<char>(room)};
  if (found.data == nullptr) return false;
  while (found.size < room) {
    const ssize_t n = read(fd, found.data.get() + found.size, room - found.size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) {
      *bytes = std::move(found);
      return true;
    }
    found.size += static_cast<size_t>(n);
  }
  errno = EFBIG;
  return false;
}
