// filePosix.cpp -- what a path names, and the removal of a single name.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "lib/file/fileInt.h"
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

// Errno-style: removes what the link `path` names, if it is a link and that is there.
int DeleteTarget(const char *path) {
  const HeapStr target(Posix_ReadLink(path));
  if (target == nullptr) return errno == EINVAL ? 0 : errno;
  const int error = UnlinkPath(target.get());
  return error == ENOENT ? 0 : error;
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
