// filePosix.cpp -- what a path names, and the removal of a single name.
//
// Tests: tests/unit/file_test.cpp, tests/unit/fileTree_test.cpp

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lib/file/fileInt.h"
#include "lib/public/fd.h"
#include "lib/public/file.h"
#include "lib/public/posix.h"

namespace {

FileType TypeOfMode(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return FILE_TYPE_REGULAR;
    case S_IFDIR:
      return FILE_TYPE_DIRECTORY;
    case S_IFBLK:
      return FILE_TYPE_BLOCKDEVICE;
    case S_IFCHR:
      return FILE_TYPE_CHARDEVICE;
    case S_IFLNK:
      return FILE_TYPE_SYMLINK;
    default:
      return FILE_TYPE_UNCERTAIN;
  }
}

bool HasType(const char *path, FileType type) {
  FileData data = {};
  return FileAttributes(path, &data) == 0 && data.fileType == type;
}

int UnlinkPath(const char *path) {
  return unlink(path) == 0 ? 0 : errno;
}

// Errno-style: removes what `path` names if it is a link; a missing target is fine.
int DeleteTarget(const char *path) {
  const HeapStr target(Posix_ReadLinkAt(AT_FDCWD, path));
  if (target == nullptr) return errno == EINVAL ? 0 : errno;
  const int error = UnlinkPath(target.get());
  return error == ENOENT ? 0 : error;
}

// As many links as open(2) follows.
constexpr int kMaxLinks = 40;

// The directory that `path` is an entry of, seen from the directory `dir`; empty when it cannot be
// opened.
Fd OpenParent(int dir, const char *path) {
  const char *const slash = strrchr(path, '/');
  const HeapStr parent = slash == nullptr
                             ? Heap_SafeStrdup(".")
                             : Heap_SafeStrndup(path, static_cast<size_t>(slash + 1 - path));
  return Fd(openat(dir, parent.get(), kFileOpenDirectory));
}

}  // namespace

int FileAttributes(const char *path, FileData *out) {
  if (path == nullptr) return errno = EFAULT;
  struct stat status;
  if (stat(path, &status) != 0) return errno;
  if (out == nullptr) return 0;
  out->fileAccessTime = status.st_atime;
  out->fileCreationTime = status.st_ctime;
  out->fileModificationTime = status.st_mtime;
  out->fileSize = status.st_size;
  out->fileType = TypeOfMode(status.st_mode);
  out->fileMode = status.st_mode;
  out->fileOwner = status.st_uid;
  out->fileGroup = status.st_gid;
  return 0;
}

int FileRequireDirectory(const char *path) {
  FileData data{};
  const int error = FileAttributes(path, &data);
  if (error != 0) return error;
  return data.fileType == FILE_TYPE_DIRECTORY ? 0 : errno = ENOTDIR;
}

int FileDeletePath(const char *path, bool handleLink) {
  if (path == nullptr) return errno = EFAULT;
  const int error = handleLink ? DeleteTarget(path) : 0;
  return error != 0 ? error : UnlinkPath(path);
}

void FileRemoveOpened(int dir, const char *name, const FileIdentity &identity, bool followLinks) {
  const ErrnoKeeper keeper;
  Fd parent;
  HeapStr target = Heap_SafeStrdup(name);
  const int most = followLinks ? kMaxLinks : 0;
  for (int links = 0; links <= most && target != nullptr; links++) {
    const int at = parent ? parent.Get() : dir;
    struct stat status;
    if (fstatat(at, target.get(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (!S_ISLNK(status.st_mode)) {
      if (FileIdentity::Of(status) != identity || unlinkat(at, target.get(), 0) != 0) return;
      if (links > 0) unlinkat(dir, name, 0);
      return;
    }
    Fd next = OpenParent(at, target.get());
    if (!next) return;
    target = HeapStr(Posix_ReadLinkAt(at, target.get()));
    parent = std::move(next);
  }
}

// ---- public ---------------------------------------------------------------------------------

bool File_Exists(const char *path) {
  return FileAttributes(path, nullptr) == 0;
}

bool File_IsDirectory(const char *path) {
  return HasType(path, FILE_TYPE_DIRECTORY);
}

bool File_IsRegularFile(const char *path) {
  return HasType(path, FILE_TYPE_REGULAR);
}

bool File_IsEmptyDirectory(const char *path) {
  return File_ListDirectory(path, nullptr) == 0;
}

bool File_GetFilePermissions(const char *path, int *mode) {
  FileData data = {};
  if (FileAttributes(path, &data) != 0) return false;
  *mode = static_cast<int>(data.fileMode);
  return true;
}

int File_DeleteIfPresent(const char *path) {
  const int error = FileDeletePath(path, true);
  return errno = error == ENOENT ? 0 : error;
}

int File_Unlink(const char *path) {
  return errno = FileDeletePath(path, true);
}

int File_UnlinkNoFollow(const char *path) {
  return errno = FileDeletePath(path, false);
}

bool File_DeleteEmptyDirectory(const char *path) {
  if (path != nullptr) return rmdir(path) == 0;
  errno = EFAULT;
  return false;
}
