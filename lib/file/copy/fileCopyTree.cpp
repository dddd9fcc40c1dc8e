// fileCopyTree.cpp -- copies of directory trees.
//
// Idea:       two ways down, one in each tree, and the names that are left in each directory of the
//             way.  Every step names one entry of an open directory, on both sides, so changes to
//             either tree meanwhile cannot lead the copy elsewhere.  The first failure ends it.
// Invariants: 1. An entry is opened first and looked at afterwards, so what is copied is what was
//             looked at.  Without followSymlinks neither side is opened through a link, and nothing
//             waits for the other end of a FIFO; with bounds, special files are not even opened.
//             2. Whatever names, links and mounts lead there: no file or directory of the source is
//             written, so the copy neither changes its source nor copies itself; and no directory is
//             entered from within itself.  What an empty destination receives is new; in any other
//             the files of the source are known before the first is copied.
// Tests: tests/unit/fileTree_test.cpp

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "lib/file/copy/fileCopyInt.h"
#include "lib/file/raw/fileIOInt.h"
#include "lib/public/err.h"
#include "lib/public/fd.h"
#include "lib/public/file.h"
#include "lib/public/msg.h"
#include "lib/public/posix.h"
#include "platform/files.h"

namespace {

// ---- failures ----------------------------------------------------------------------------------

bool TellStatError(const FileEntry &src) {
  Msg_Append(
      "@&!*@*@(msg.File.CopyTree.stat.failure)"
      "Unable to get information on '%s' when copying files.\n\n",
      src.Path().get());
  return false;
}

bool TellWalkError(const char *src) {
  Msg_Append("@&!*@*@(msg.File.CopyTree.walk.failure)Unable to access '%s' when copying files.\n\n",
             src);
  return false;
}

bool TellCopyError(const char *src, const char *dst) {
  Msg_Append("@&!*@*@(msg.File.CopyTree.copy.failure)Unable to copy '%s' to '%s': %s\n\n", src, dst,
             Err_ErrnoToString(errno));
  return false;
}

bool TellCopyError(const FileEntry &src, const FileEntry &dst) {
  return TellCopyError(src.Path().get(), dst.Path().get());
}

// ---- the copy ----------------------------------------------------------------------------------

class TreeCopy {
  FileCopyOptions options_;
  FileDescent from_;
  FileDescent to_;
  FileLevels levels_;
  FileIdentityMap read_;     // directories of the source so far, or all its directories and files
  FileIdentityMap written_;  // directories of the destination so far

  FileEntry Source(const char *name) const { return {from_.Here(), name, &from_}; }
  FileEntry Destination(const char *name) const { return {to_.Here(), name, &to_}; }
  Fd OpenSource(const char *name) const;
  Fd OpenDestination(const char *name) const;
  [[nodiscard]] bool List(int dir, const char *path, FileNames *names) const;
  [[nodiscard]] bool LearnSource(int from, const char *srcName, int to, const char *dstName);
  [[nodiscard]] bool MayRead(const FileIdentity &dir);
  [[nodiscard]] bool MayWrite(int dir);
  bool CopyLink(const char *name) const;
  bool CopyUnopened(const char *name) const;
  bool CopyFile(const char *name, Fd opened) const;
  bool EnterDirectory(const char *name, Fd from, const FileIdentity &identity);
  bool CopyEntry(const char *name);

 public:
  explicit TreeCopy(const FileCopyOptions &options)
      : options_(options), from_(options.followSymlinks), to_(options.followSymlinks) {
    options_.source = &read_;
  }

  bool Run(Fd from, const char *srcName, Fd to, const char *dstName);
};

Fd TreeCopy::OpenSource(const char *name) const {
  if (options_.regularOnly) return Platform_OpenRegularOrDirectory(from_.Here(), name);
  const int flags = options_.followSymlinks ? 0 : O_NOFOLLOW | O_NONBLOCK;
  return Fd(openat(from_.Here(), name, O_RDONLY | O_CLOEXEC | flags));
}

// Opens the directory, which is made if it is missing.
Fd TreeCopy::OpenDestination(const char *name) const {
  if (mkdirat(to_.Here(), name, 0777) != 0 && errno != EEXIST) return Fd();
  const int flags = options_.followSymlinks ? 0 : O_NOFOLLOW;
  Fd dir(openat(to_.Here(), name, kFileOpenDirectory | flags));
  struct stat status;
  if (!dir && flags != 0 && fstatat(to_.Here(), name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
    errno = S_ISLNK(status.st_mode) ? ELOOP : ENOTDIR;
  }
  return dir;
}

bool TreeCopy::List(int dir, const char *path, FileNames *names) const {
  FileCopyBounds *const left = options_.left;
  if (!names->ListAt(dir, path, left == nullptr ? UINT64_MAX : left->entries)) {
    return TellWalkError(path);
  }
  if (left != nullptr) left->entries -= static_cast<uint64_t>(names->Count());
  return true;
}

// Within bounds this is left out: they are for a destination that only this copy fills.
bool TreeCopy::LearnSource(int from, const char *srcName, int to, const char *dstName) {
  if (options_.left != nullptr) return true;
  FileNames there;
  if (!there.ListAt(to, dstName)) return TellCopyError(srcName, dstName);
  if (there.Count() == 0) return true;
  Fd top(fcntl(from, F_DUPFD_CLOEXEC, 0));
  const bool known =
      top && FileScanTree(std::move(top), srcName, options_.followSymlinks, &read_) == 0;
  return known || TellWalkError(srcName);
}

// EINVAL for a directory of the destination, ELOOP for one that the way leads through already.
bool TreeCopy::MayRead(const FileIdentity &dir) {
  const bool isDestination = written_.Get(dir);
  if (!isDestination && !(read_.Get(dir) && from_.Passes(dir))) {
    read_.Set(dir);
    return true;
  }
  errno = isDestination ? EINVAL : ELOOP;
  return false;
}

// EINVAL for a directory of the source.
bool TreeCopy::MayWrite(int dir) {
  FileIdentity identity;
  if (FileIdentity::Of(dir, &identity) != 0) return false;
  written_.Set(identity);
  if (!read_.Get(identity)) return true;
  errno = EINVAL;
  return false;
}

bool TreeCopy::CopyLink(const char *name) const {
  const HeapStr target(Posix_ReadLinkAt(from_.Here(), name));
  if (target != nullptr && symlinkat(target.get(), to_.Here(), name) == 0) return true;
  Msg_Append("@&!*@*@(msg.File.CopyTree.symlink.failure)Unable to symlink '%s' to '%s': %s\n\n",
             target.get(), Destination(name).Path().get(), Err_ErrnoToString(errno));
  return false;
}

// An entry that OpenSource has failed on, with the cause in errno: a link, which may be copied
// without being opened, or a failure.
bool TreeCopy::CopyUnopened(const char *name) const {
  const int cause = errno;
  const FileEntry src = Source(name);
  struct stat status;
  if (fstatat(src.dir, name, &status, options_.followSymlinks ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
    return TellStatError(src);
  }
  if (S_ISLNK(status.st_mode) && cause == ELOOP) return CopyLink(name);
  errno = cause;
  if (S_ISDIR(status.st_mode)) return TellWalkError(src.Path().get());
  FileTellOpenError(src, FileIOReport("FILE:open error on %s: %s\n", src.Path().get()));
  return TellCopyError(src, Destination(name));
}

bool TreeCopy::CopyFile(const char *name, Fd opened) const {
  FileIODescriptor src;
  FileIO_Invalidate(&src);
  src.posix = opened.Release();
  src.flags = FILEIO_ACCESS_READ;
  return FileCopyOpened(&src, Source(name), Destination(name), options_) ||
         TellCopyError(Source(name), Destination(name));
}

// The directory `name`, open as `from`, is the next to be copied.
bool TreeCopy::EnterDirectory(const char *name, Fd from, const FileIdentity &identity) {
  const FileEntry src = Source(name);
  const FileEntry dst = Destination(name);
  if (!MayRead(identity)) return TellCopyError(src, dst);
  FileNames names;
  if (!List(from.Get(), src.Path().get(), &names)) return false;
  Fd to = OpenDestination(name);
  if (!to || !MayWrite(to.Get()) || to_.Down(std::move(to), name) != 0 ||
      from_.Down(std::move(from), name) != 0) {
    return TellCopyError(src, dst);
  }
  levels_.Push(std::move(names));
  return true;
}

bool TreeCopy::CopyEntry(const char *name) {
  Fd opened = OpenSource(name);
  if (!opened) return CopyUnopened(name);
  struct stat status;
  if (fstat(opened.Get(), &status) != 0) return TellStatError(Source(name));
  if (!S_ISDIR(status.st_mode)) return CopyFile(name, std::move(opened));
  return EnterDirectory(name, std::move(opened), FileIdentity::Of(status));
}

bool TreeCopy::Run(Fd from, const char *srcName, Fd to, const char *dstName) {
  FileIdentity source;
  if (FileIdentity::Of(from.Get(), &source) != 0) return TellWalkError(srcName);
  if (FileRequireOutside(to.Get(), source) != 0) return TellCopyError(srcName, dstName);
  FileNames top;
  if (!List(from.Get(), srcName, &top) || !LearnSource(from.Get(), srcName, to.Get(), dstName)) {
    return false;
  }
  if (!MayRead(source) || !MayWrite(to.Get()) || to_.Begin(std::move(to), dstName) != 0 ||
      from_.Begin(std::move(from), srcName) != 0) {
    return TellCopyError(srcName, dstName);
  }
  levels_.Push(std::move(top));
  for (;;) {
    FileLevel &level = levels_.Last();
    if (const char *const name = level.Next(); name != nullptr) {
      if (!CopyEntry(name)) return false;
      continue;
    }
    levels_.Pop();
    if (levels_.Empty()) return true;
    if (from_.Up() != 0) return TellWalkError(from_.Path());
    if (to_.Up() != 0) return TellCopyError(from_.Path(), to_.Path());
  }
}

// The destination, which must be a directory; links are followed.
Fd OpenDestinationTop(const char *dstName) {
  Fd dir(FileRequireDirectory(dstName) == 0 ? open(dstName, kFileOpenDirectory) : -1);
  if (!dir) {
    Msg_Append(
        "@&!*@*@(msg.File.CopyTree.dest.notDirectory)Destination path '%s' is not a directory.",
        dstName);
  }
  return dir;
}

}  // namespace

bool FileCopyTreeWorker(Fd src, const char *srcName, const char *dstName,
                        const FileCopyOptions &options) {
  Fd to = OpenDestinationTop(dstName);
  return to && TreeCopy(options).Run(std::move(src), srcName, std::move(to), dstName);
}

bool File_CopyTree(const char *srcName, const char *dstName, bool overwriteExisting,
                   bool followSymlinks) {
  if (FileRequireDirectory(srcName) != 0) {
    Msg_Append("@&!*@*@(msg.File.CopyTree.source.notDirectory)Source path '%s' is not a directory.",
               srcName);
    return false;
  }
  Fd src(open(srcName, kFileOpenDirectory));
  if (!src) return TellWalkError(srcName);
  return FileCopyTreeWorker(
      std::move(src), srcName, dstName,
      {.overwriteExisting = overwriteExisting, .followSymlinks = followSymlinks});
}

bool File_CopyOpenTree(int srcDir, const char *srcName, const char *dstName,
                       FileCopyBounds bounds) {
  Fd src(fcntl(srcDir, F_DUPFD_CLOEXEC, 0));
  if (!src) return TellWalkError(srcName);
  return FileCopyTreeWorker(std::move(src), srcName, dstName,
                            {.regularOnly = true, .left = &bounds});
}
