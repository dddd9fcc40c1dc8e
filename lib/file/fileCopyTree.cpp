// fileCopyTree.cpp -- copies of directory trees.
//
// Idea:   one level lists its names and copies entry by entry; a directory among them is the next
//         level.  The first failure ends all levels.  A level's frame holds no more than a few paths,
//         so that the depth ends at the system's limit for paths, where lstat(2) says so.
// Holds:  without followSymlinks nothing is read or written through a link, and nothing waits for
//         the other end of a FIFO, even if somebody changes the source meanwhile, or its listing has a
//         name twice: once for a link, which is made, and once for what would go through it.
// Tests:  tests/unit/fileTree_test.cpp

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "err.h"
#include "errnoKeeper.h"
#include "file.h"
#include "lib/file/fileInt.h"
#include "msg.h"
#include "posix.h"

namespace {

struct CopyOptions {
  bool overwriteExisting;
  bool followSymlinks;
};

bool FileCopyTreeWorker(const char *src, const char *dst, CopyOptions options);

// The type bits of an entry; 0, with a message, when they cannot be had.
mode_t TypeOf(const char *path, bool followSymlinks) {
  struct stat status;
  if ((followSymlinks ? stat(path, &status) : lstat(path, &status)) == 0) {
    return status.st_mode & S_IFMT;
  }
  const ErrnoKeeper keeper;
  Msg_Append(
      "@&!*@*@(msg.File.CopyTree.stat.failure)"
      "Unable to get information on '%s' when copying files.\n\n",
      path);
  return 0;
}

bool CopyLink(const char *src, const char *dst) {
  const HeapStr target(Posix_ReadLink(src));
  if (target != nullptr && symlink(target.get(), dst) == 0) return true;
  const ErrnoKeeper keeper;
  Msg_Append("@&!*@*@(msg.File.CopyTree.symlink.failure)Unable to symlink '%s' to '%s': %s\n\n",
             target.get(), dst, Err_ErrnoToString(keeper.Get()));
  return false;
}

bool TellCopyError(const char *src, const char *dst) {
  const ErrnoKeeper keeper;
  Msg_Append("@&!*@*@(msg.File.CopyTree.copy.failure)Unable to copy '%s' to '%s': %s\n\n", src, dst,
             Err_ErrnoToString(keeper.Get()));
  return false;
}

bool CopyContent(const char *src, const char *dst, CopyOptions options) {
  const uint32_t flags = options.followSymlinks ? 0U : FILEIO_FLAG_NOFOLLOW | FILEIO_FLAG_NONBLOCK;
  return FileCopyWith(src, dst, options.overwriteExisting, flags) || TellCopyError(src, dst);
}

// Whether nothing, or no link, is at `path`; if not, errno says why.
bool RequireNoLink(const char *path) {
  struct stat status;
  if (lstat(path, &status) != 0) return errno == ENOENT;
  if (!S_ISLNK(status.st_mode)) return true;
  errno = ELOOP;
  return false;
}

bool CopyDirectory(const char *src, const char *dst, CopyOptions options) {
  if (!options.followSymlinks && !RequireNoLink(dst)) return TellCopyError(src, dst);
  return FileCopyTreeWorker(src, dst, options);
}

bool CopyEntry(const char *src, const char *dst, CopyOptions options) {
  const mode_t type = TypeOf(src, options.followSymlinks);
  if (type == 0) return false;
  if (S_ISLNK(type)) return CopyLink(src, dst);
  if (S_ISDIR(type)) return CopyDirectory(src, dst, options);
  return CopyContent(src, dst, options);
}

// An existing destination is the normal case, and another failure shows at the first entry.
void MakeDestination(const char *dst) {
  if (FileCreateDirectory(dst, 0777) == EEXIST) static_cast<void>(FileRequireDirectory(dst));
}

bool FileCopyTreeWorker(const char *src, const char *dst, CopyOptions options) {
  FileNames names;
  if (!names.List(src)) {
    const ErrnoKeeper keeper;
    Msg_Append(
        "@&!*@*@(msg.File.CopyTree.walk.failure)Unable to access '%s' when copying files.\n\n",
        src);
    return false;
  }
  MakeDestination(dst);
  for (const char *const name : names) {
    const HeapStr from(File_PathJoin(src, name));
    const HeapStr to(File_PathJoin(dst, name));
    if (!CopyEntry(from.get(), to.get(), options)) return false;
  }
  return true;
}

}  // namespace

bool File_CopyTree(const char *srcName, const char *dstName, bool overwriteExisting,
                   bool followSymlinks) {
  if (FileRequireDirectory(srcName) != 0) {
    const ErrnoKeeper keeper;
    Msg_Append("@&!*@*@(msg.File.CopyTree.source.notDirectory)Source path '%s' is not a directory.",
               srcName);
    return false;
  }
  if (FileRequireDirectory(dstName) != 0) {
    const ErrnoKeeper keeper;
    Msg_Append(
        "@&!*@*@(msg.File.CopyTree.dest.notDirectory)Destination path '%s' is not a directory.",
        dstName);
    return false;
  }
  return FileCopyTreeWorker(
      srcName, dstName, {.overwriteExisting = overwriteExisting, .followSymlinks = followSymlinks});
}
