// fileCopy.cpp -- copies of single files.
//
// Invariants: 1. Each failure appends one message where it is found, and the first cause is in
//             errno when the copy returns.
//             2. The source is never touched: the destination is opened without emptying it, and
//             emptied only after it has been found to be another file, and none of the same tree.
//             3. What is removed after a failure is the regular file that was opened, found again by
//             its identity; not whatever its name leads to by then, and no device.
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
#include "platform/files.h"

namespace {

constexpr size_t kBufferSize = 8192;

constexpr char kCannotCloseSource[] =
    "@&!*@*@(msg.File.Copy.close.failure)Unable to close the '%s' file: %s.\n\n";
constexpr char kCannotCloseDestination[] =
    "@&!*@*@(msg.File.CopyFromFdToName.close.failure)Unable to close the '%s' file: %s.\n\n";

bool TellReadError() {
  Msg_Append("@&!*@*@(msg.File.CopyFromFdToFd.read.failure)Read error: %s.\n\n",
             Err_ErrnoToString(errno));
  return false;
}

bool TellWriteError(FileIOResult result) {
  Msg_Append("@&!*@*@(msg.File.CopyFromFdToFd.write.failure)Write error: %s.\n\n",
             FileIO_MsgError(result));
  return false;
}

bool TellCreateError(const FileEntry &dst, FileIOResult result) {
  Msg_Append(
      "@&!*@*@(msg.File.CopyFromFdToName.create.failure)"
      "Unable to create a new '%s' file: %s.\n\n",
      dst.Path().get(), FileIO_MsgError(result));
  return false;
}

// Closes *fd after a step that succeeded if `ok`, and returns whether both did.  errno is that of
// the first failure.
bool CloseAfter(bool ok, FileIODescriptor *fd, const char *message, const FileEntry &entry) {
  ErrnoKeeper cause;
  if (FileIOCloseUnlocked(fd) == FILEIO_SUCCESS) return ok;
  if (ok) cause.Set(errno);
  Msg_Append(message, entry.Path().get(), Err_ErrnoToString(errno));
  return false;
}

// False, with EFBIG, when less than `size` bytes are left; otherwise they are taken off.
bool TakeBytes(FileCopyBounds *left, size_t size) {
  if (left == nullptr) return true;
  if (size > left->bytes) {
    errno = EFBIG;
    return false;
  }
  left->bytes -= size;
  return true;
}

// File_CopyFromFdToFd within bounds.  With `drain`, what would have to be waited for is not copied.
bool CopyWithin(FileIODescriptor *src, FileIODescriptor *dst, FileCopyBounds *left, bool drain) {
  char buffer[kBufferSize];
  for (;;) {
    size_t size = 0;
    const FileIOResult got = FileIO_Read(src, buffer, sizeof buffer, &size);
    const bool ended =
        got == FILEIO_READ_ERROR_EOF || (drain && got == FILEIO_ERROR && errno == EAGAIN);
    if (got != FILEIO_SUCCESS && !ended) return TellReadError();
    if (!TakeBytes(left, size)) return TellWriteError(FILEIO_WRITE_ERROR_FBIG);
    const FileIOResult put = FileIO_Write(dst, buffer, size, nullptr);
    if (put != FILEIO_SUCCESS) return TellWriteError(put);
    if (ended) return true;
  }
}

// What the kernel can copy by itself; CopyWithin copies the rest.
void CopyInKernel(int src, int dst, FileCopyBounds *left) {
  const uint64_t copied =
      Platform_CopyInKernel(src, dst, left == nullptr ? UINT64_MAX : left->bytes);
  if (left != nullptr) left->bytes -= copied;
}

// Opens the destination, new or empty.  *opened is then its status.
FileIOResult OpenDestination(const FileEntry &dst, const FileCopyOptions &options,
                             const FileIdentity &src, FileIODescriptor *fd, struct stat *opened) {
  FileIO_Invalidate(fd);
  if (dst.name == nullptr) {
    errno = EFAULT;
    return FILEIO_ERROR;
  }
  const int flags = (options.overwriteExisting ? 0 : O_EXCL) |
                    (options.followSymlinks ? 0 : O_NOFOLLOW | O_NONBLOCK);
  Fd file(openat(dst.dir, dst.name, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0600));
  if (file && fstat(file.Get(), opened) == 0) {
    const FileIdentity identity = FileIdentity::Of(*opened);
    if (identity == src || (options.source != nullptr && options.source->Get(identity))) {
      errno = EEXIST;
      return FILEIO_OPEN_ERROR_EXIST;
    }
    if (!S_ISREG(opened->st_mode) || opened->st_size == 0 || ftruncate(file.Get(), 0) == 0) {
      fd->posix = file.Release();
      fd->flags = FILEIO_ACCESS_WRITE;
      return FILEIO_SUCCESS;
    }
  }
  return FileIOReport("FILE:open error on %s: %s\n", dst.Path().get());
}

bool CopyToEntry(FileIODescriptor *src, const FileEntry &dst, const FileCopyOptions &options,
                 FileIdentity *copied = nullptr) {
  struct stat from;
  if (fstat(src->posix, &from) != 0) return TellReadError();
  if (S_ISDIR(from.st_mode)) {
    errno = EISDIR;
    return TellReadError();
  }
  const FileIdentity identity = FileIdentity::Of(from);
  if (copied != nullptr) *copied = identity;
  FileIODescriptor out;
  struct stat to;
  const FileIOResult opened = OpenDestination(dst, options, identity, &out, &to);
  if (opened != FILEIO_SUCCESS) return TellCreateError(dst, opened);

  // Below one buffer, its read and write cost no more.
  if (S_ISREG(from.st_mode) && S_ISREG(to.st_mode) && from.st_size > off_t{kBufferSize}) {
    CopyInKernel(src->posix, out.posix, options.left);
  }
  const bool drain = S_ISFIFO(from.st_mode) && !options.followSymlinks;
  bool ok = CopyWithin(src, &out, options.left, drain);
  ok = CloseAfter(ok, &out, kCannotCloseDestination, dst);
  if (!ok && S_ISREG(to.st_mode)) {
    FileRemoveOpened(dst.dir, dst.name, FileIdentity::Of(to), options.followSymlinks);
  }
  return ok;
}

}  // namespace

HeapStr FileEntry::Path() const {
  if (way != nullptr) return way->PathOf(name);
  return Heap_SafeStrdup(name == nullptr ? "(null)" : name);
}

bool FileTellOpenError(const FileEntry &src, FileIOResult result) {
  Msg_Append(
      "@&!*@*@(msg.File.Copy.open.failure)Unable to open the '%s' file for read access: %s.\n\n",
      src.Path().get(), FileIO_MsgError(result));
  return false;
}

bool FileCopyOpened(FileIODescriptor *src, const FileEntry &srcEntry, const FileEntry &dst,
                    const FileCopyOptions &options, FileIdentity *copied) {
  return CloseAfter(CopyToEntry(src, dst, options, copied), src, kCannotCloseSource, srcEntry);
}

bool File_CopyFromFdToFd(FileIODescriptor *srcFd, FileIODescriptor *dstFd) {
  return CopyWithin(srcFd, dstFd, nullptr, false);
}

bool File_CopyFromFdToName(FileIODescriptor *srcFd, const char *dstName, bool overwriteExisting) {
  return CopyToEntry(srcFd, {AT_FDCWD, dstName},
                     {.overwriteExisting = overwriteExisting, .followSymlinks = true});
}

bool File_Copy(const char *srcName, const char *dstName, bool overwriteExisting) {
  return FileCopyPaths(srcName, dstName, overwriteExisting, nullptr);
}

bool FileCopyPaths(const char *srcName, const char *dstName, bool overwriteExisting,
                   FileIdentity *copied) {
  const FileEntry src = {AT_FDCWD, srcName};
  FileIODescriptor fd;
  const FileIOResult opened =
      FileIOOpenUnlocked(&fd, srcName, FILEIO_ACCESS_READ, FILEIO_OPEN, 0600);
  if (opened != FILEIO_SUCCESS) return FileTellOpenError(src, opened);
  return FileCopyOpened(&fd, src, {AT_FDCWD, dstName},
                        {.overwriteExisting = overwriteExisting, .followSymlinks = true}, copied);
}
