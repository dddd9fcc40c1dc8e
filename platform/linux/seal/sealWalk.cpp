// sealWalk.cpp -- visits everything in a directory bundle that a seal covers.
//
// The tree may belong to anybody and may change during the walk.  Each step goes from an open directory
// to one entry by its name, never through a link; what is visited is an open file, which cannot be
// exchanged any more.
// Tests: tests/system/codeseal_test

#include "platform/linux/seal/sealWalk.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>

#include "lib/public/dirStream.h"
#include "platform/files.h"
#include "platform/linux/seal/sealText.h"

namespace {

// Files and links, whose number the seal's text limits, and as many directories.
constexpr size_t kMaxEntries = 2 * kSealMaxItems;

bool Refuse(int error) {
  errno = error;
  return false;
}

}  // namespace

bool SealIsDirectory(int item) {
  struct stat info;
  return fstat(item, &info) == 0 && S_ISDIR(info.st_mode);
}

bool SealWalk::Below(int dirFd) {
  entries_ = 0;
  length_ = 0;
  path_[0] = '\0';
  // Opened again, so that it has its own offset.
  const Fd fd(openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && Directory(fd.Get(), 0);
}

bool SealWalk::Directory(int fd, int depth) {
  if (depth > kSealMaxDepth) return Refuse(ELOOP);
  const DirStream dir = DirStreamOf(Fd(fcntl(fd, F_DUPFD_CLOEXEC, 0)));
  if (dir == nullptr) return false;
  for (;;) {
    errno = 0;
    const dirent *const entry = readdir(dir.get());
    if (entry == nullptr) return errno == 0;
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    if (++entries_ > kMaxEntries) return Refuse(EFBIG);
    if (!Entry(fd, entry->d_name, depth)) return false;
  }
}

bool SealWalk::Entry(int dirFd, const char *name, int depth) {
  const size_t before = length_;
  const size_t slash = before == 0 ? 0 : 1;
  const size_t size = strlen(name);
  if (before + slash + size >= sizeof path_) return Refuse(ENAMETOOLONG);
  if (slash != 0) path_[before] = '/';
  memcpy(path_ + before + slash, name, size + 1);
  length_ = before + slash + size;

  struct stat info;
  if (fstatat(dirFd, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return false;
  bool ok = false;
  switch (info.st_mode & S_IFMT) {
    case S_IFDIR:
      ok = Subdirectory(dirFd, name, depth);
      break;
    case S_IFREG:
      ok = File(dirFd, name);
      break;
    case S_IFLNK:
      ok = Link(dirFd, name);
      break;
    // Never opened: merely opening a device can have side effects.
    default:
      errno = ENOTSUP;
      break;
  }
  if (!ok) return false;
  length_ = before;
  path_[before] = '\0';
  return true;
}

bool SealWalk::Subdirectory(int dirFd, const char *name, int depth) {
  const Fd fd(openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return fd && Directory(fd.Get(), depth + 1);
}

bool SealWalk::File(int dirFd, const char *name) {
  if (strcmp(path_, kSealFile) == 0) return true;
  const Fd fd = Platform_OpenRegularOrDirectory(dirFd, name);
  struct stat info;
  if (!fd || fstat(fd.Get(), &info) != 0) return false;
  if (!S_ISREG(info.st_mode)) return Refuse(ENOTSUP);
  return visit_(context_, {path_, fd.Get(), nullptr});
}

bool SealWalk::Link(int dirFd, const char *name) {
  char target[PATH_MAX];
  const ssize_t length = readlinkat(dirFd, name, target, sizeof target);
  if (length < 0) return false;
  if (static_cast<size_t>(length) == sizeof target) return Refuse(ENAMETOOLONG);
  target[length] = '\0';
  return visit_(context_, {path_, -1, target});
}
