// fileCopyTree.cpp -- copies of directory trees.
//
// Idea:   one level lists its names and copies entry by entry; a directory among them is the next
//         level.  The first failure ends all levels.
// Holds:  1. Without followSymlinks nothing is read through a link, even if somebody changes the
//            source meanwhile: below the top, each step names one entry of a directory that is
//            open, and a directory is entered only as one.
//         2. Nor is anything written through a link that the copy meets, even if the listing has a
//            name twice: once for a link, which is made, and once for what would go through it.
//            The destination is looked up by path, though: nobody else may change it meanwhile.
//         3. Without followSymlinks nothing waits for the other end of a FIFO; with bounds, special
//         files are not even opened.
//         4. The depth ends where paths would become too long.  A level keeps a descriptor open, and
//            in its frame little more than a few paths.
// Tests:  tests/unit/fileTree_test.cpp

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "lib/file/fileInt.h"
#include "lib/public/err.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fd.h"
#include "lib/public/file.h"
#include "lib/public/msg.h"
#include "lib/public/posix.h"

namespace {

bool FileCopyTreeWorker(int dir, const char *src, const char *dst, const FileCopyOptions &options);

// fstatat(2), but for the limit of the depth.
int StatEntry(const FileEntry &entry, bool followSymlinks, struct stat *status) {
  if (strlen(entry.path) < PATH_MAX) {
    return fstatat(entry.dir, entry.name, status, followSymlinks ? 0 : AT_SYMLINK_NOFOLLOW);
  }
  errno = ENAMETOOLONG;
  return -1;
}

// The type bits of an entry; 0, with a message, when they cannot be had.
mode_t TypeOf(const FileEntry &entry, bool followSymlinks) {
  struct stat status;
  if (StatEntry(entry, followSymlinks, &status) == 0) return status.st_mode & S_IFMT;
  const ErrnoKeeper keeper;
  Msg_Append(
      "@&!*@*@(msg.File.CopyTree.stat.failure)"
      "Unable to get information on '%s' when copying files.\n\n",
      entry.path);
  return 0;
}

bool CopyLink(const FileEntry &src, const char *dst) {
  const HeapStr target(Posix_ReadLinkAt(src.dir, src.name));
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

bool TellWalkError(const char *src) {
  const ErrnoKeeper keeper;
  Msg_Append("@&!*@*@(msg.File.CopyTree.walk.failure)Unable to access '%s' when copying files.\n\n",
             src);
  return false;
}

bool CopyContent(const FileEntry &src, const char *dst, const FileCopyOptions &options) {
  return FileCopyEntry(src, dst, options) || TellCopyError(src.path, dst);
}

// Whether nothing, or no link, is at `path`; if not, errno says why.
bool RequireNoLink(const char *path) {
  struct stat status;
  if (lstat(path, &status) != 0) return errno == ENOENT;
  if (!S_ISLNK(status.st_mode)) return true;
  errno = ELOOP;
  return false;
}

bool CopyDirectory(const FileEntry &src, const char *dst, const FileCopyOptions &options) {
  if (!options.followSymlinks && !RequireNoLink(dst)) return TellCopyError(src.path, dst);
  const int flags = options.followSymlinks ? 0 : O_NOFOLLOW;
  const Fd dir(openat(src.dir, src.name, kFileOpenDirectory | flags));
  return dir ? FileCopyTreeWorker(dir.Get(), src.path, dst, options) : TellWalkError(src.path);
}

bool CopyEntry(const FileEntry &src, const char *dst, const FileCopyOptions &options) {
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

// Copies what is in the source, which is open as `dir`.
bool FileCopyTreeWorker(int dir, const char *src, const char *dst, const FileCopyOptions &options) {
  FileNames names;
  if (!names.ListAt(dir, src, options.left->entries)) return TellWalkError(src);
  options.left->entries -= static_cast<uint64_t>(names.Count());
  MakeDestination(dst);
  for (const char *const name : names) {
    const HeapStr from(File_PathJoin(src, name));
    const HeapStr to(File_PathJoin(dst, name));
    if (!CopyEntry({dir, name, from.get()}, to.get(), options)) return false;
  }
  return true;
}

bool RequireDestination(const char *dstName) {
  if (FileRequireDirectory(dstName) == 0) return true;
  const ErrnoKeeper keeper;
  Msg_Append(
      "@&!*@*@(msg.File.CopyTree.dest.notDirectory)Destination path '%s' is not a directory.",
      dstName);
  return false;
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
  if (!RequireDestination(dstName)) return false;
  const Fd top(open(srcName, kFileOpenDirectory));
  if (!top) return TellWalkError(srcName);
  FileCopyBounds none = {UINT64_MAX, UINT64_MAX};
  return FileCopyTreeWorker(top.Get(), srcName, dstName,
                            {.overwriteExisting = overwriteExisting,
                             .followSymlinks = followSymlinks,
                             .regularOnly = false,
                             .left = &none});
}

bool File_CopyOpenTree(int srcDir, const char *srcName, const char *dstName,
                       FileCopyBounds bounds) {
  return RequireDestination(dstName) && FileCopyTreeWorker(srcDir, srcName, dstName,
                                                           {.overwriteExisting = false,
                                                            .followSymlinks = false,
                                                            .regularOnly = true,
                                                            .left = &bounds});
}
