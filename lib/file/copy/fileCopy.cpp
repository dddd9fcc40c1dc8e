// fileCopy.cpp -- copies of single files.
//
// Holds:  1. Each failure appends one message where it is found, and errno is its cause until the
//         outermost procedure returns.
//         2. The source is never touched: a destination that is the source, by whatever name, is
//         refused before it is emptied.
//         3. The buffer stands in the frame of CopyWithin, which no recursion passes through (the
//         copy of a tree is another source file, and so cannot inline it).
// Tests:  tests/unit/fileTree_test.cpp

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "lib/file/fileInt.h"
#include "lib/file/raw/fileIOInt.h"
#include "lib/public/err.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fd.h"
#include "lib/public/file.h"
#include "lib/public/msg.h"
#include "platform/files.h"

namespace {

constexpr size_t kBufferSize = 8192;

bool TellReadError() {
  const ErrnoKeeper keeper;
  Msg_Append("@&!*@*@(msg.File.CopyFromFdToFd.read.failure)Read error: %s.\n\n",
             Err_ErrnoToString(keeper.Get()));
  return false;
}

bool TellCreateError(const char *dstName, FileIOResult result) {
  const ErrnoKeeper keeper;
  Msg_Append(
      "@&!*@*@(msg.File.CopyFromFdToName.create.failure)"
      "Unable to create a new '%s' file: %s.\n\n",
      dstName, FileIO_MsgError(result));
  return false;
}

// What would fail only after the destination was emptied fails here: a directory has no content to
// read, and a file cannot be copied to itself.
bool CanBeCopied(const FileIODescriptor &src, const char *dstName) {
  struct stat from;
  struct stat to;
  if (fstat(src.posix, &from) != 0) return TellReadError();
  if (S_ISDIR(from.st_mode)) {
    errno = EISDIR;
    return TellReadError();
  }
  if (stat(dstName, &to) == 0 && FileIdentity::Of(from) == FileIdentity::Of(to)) {
    errno = EEXIST;
    return TellCreateError(dstName, FILEIO_OPEN_ERROR_EXIST);
  }
  return true;
}

bool TellWriteError(FileIOResult result) {
  const ErrnoKeeper keeper;
  Msg_Append("@&!*@*@(msg.File.CopyFromFdToFd.write.failure)Write error: %s.\n\n",
             FileIO_MsgError(result));
  return false;
}

// FileIO_Write, of no more than *left bytes, which become fewer.
FileIOResult WriteWithin(FileIODescriptor *fd, const char *data, size_t size, uint64_t *left) {
  if (size > *left) {
    errno = EFBIG;
    return FILEIO_WRITE_ERROR_FBIG;
  }
  *left -= size;
  return FileIO_Write(fd, data, size, nullptr);
}

// File_CopyFromFdToFd, of no more than *left bytes.
bool CopyWithin(FileIODescriptor *srcFd, FileIODescriptor *dstFd, uint64_t *left) {
  char buffer[kBufferSize];
  for (;;) {
    size_t size = 0;
    const FileIOResult got = FileIO_Read(srcFd, buffer, sizeof buffer, &size);
    if (got != FILEIO_SUCCESS && got != FILEIO_READ_ERROR_EOF) return TellReadError();
    const FileIOResult put = WriteWithin(dstFd, buffer, size, left);
    if (put != FILEIO_SUCCESS) return TellWriteError(put);
    if (got == FILEIO_READ_ERROR_EOF) return true;
  }
}

// `flags` are for opening the destination.
bool CopyToName(FileIODescriptor *srcFd, const char *dstName, bool overwriteExisting,
                uint32_t flags, uint64_t *left) {
  if (!CanBeCopied(*srcFd, dstName)) return false;
  FileIODescriptor dstFd;
  const FileIOResult opened = FileIOOpenUnlocked(
      &dstFd, dstName, FILEIO_ACCESS_WRITE | flags,
      overwriteExisting ? FILEIO_OPEN_CREATE_EMPTY : FILEIO_OPEN_CREATE_SAFE, 0600);
  if (opened != FILEIO_SUCCESS) return TellCreateError(dstName, opened);

  bool ok = CopyWithin(srcFd, &dstFd, left);
  ErrnoKeeper cause;
  if (FileIOCloseUnlocked(&dstFd) != FILEIO_SUCCESS) {
    const ErrnoKeeper keeper;
    if (ok) cause.Set(keeper.Get());
    Msg_Append(
        "@&!*@*@(msg.File.CopyFromFdToName.close.failure)Unable to close the '%s' file: %s.\n\n",
        dstName, Err_ErrnoToString(keeper.Get()));
    ok = false;
  }
  if (!ok) FileDeletePath(dstName, true);
  return ok;
}

bool TellOpenError(const char *srcName, FileIOResult result) {
  const ErrnoKeeper keeper;
  Msg_Append(
      "@&!*@*@(msg.File.Copy.open.failure)Unable to open the '%s' file for read access: %s.\n\n",
      srcName, FileIO_MsgError(result));
  return false;
}

bool CopyAndClose(FileIODescriptor *srcFd, const char *srcName, const char *dstName,
                  bool overwriteExisting, uint32_t flags, uint64_t *left) {
  const bool copied = CopyToName(srcFd, dstName, overwriteExisting, flags, left);
  ErrnoKeeper cause;
  if (FileIOCloseUnlocked(srcFd) == FILEIO_SUCCESS) return copied;
  const ErrnoKeeper keeper;
  if (copied) cause.Set(keeper.Get());
  Msg_Append("@&!*@*@(msg.File.Copy.close.failure)Unable to close the '%s' file: %s.\n\n", srcName,
             Err_ErrnoToString(keeper.Get()));
  return false;
}

Fd OpenSource(const FileEntry &entry, const FileCopyOptions &options) {
  if (options.regularOnly) return Platform_OpenRegularOrDirectory(entry.dir, entry.name);
  const int flags = options.followSymlinks ? 0 : O_NOFOLLOW | O_NONBLOCK;
  return Fd(openat(entry.dir, entry.name, O_RDONLY | O_CLOEXEC | flags));
}

FileIOResult OpenEntry(const FileEntry &entry, const FileCopyOptions &options,
                       FileIODescriptor *fd) {
  FileIO_Invalidate(fd);
  fd->posix = OpenSource(entry, options).Release();
  if (!FileIO_IsValid(fd)) return FileIOReport("FILE:open error on %s: %s\n", entry.path);
  fd->flags = FILEIO_ACCESS_READ;
  return FILEIO_SUCCESS;
}

}  // namespace

bool File_CopyFromFdToFd(FileIODescriptor *srcFd, FileIODescriptor *dstFd) {
  uint64_t left = UINT64_MAX;
  return CopyWithin(srcFd, dstFd, &left);
}

bool File_CopyFromFdToName(FileIODescriptor *srcFd, const char *dstName, bool overwriteExisting) {
  uint64_t left = UINT64_MAX;
  return CopyToName(srcFd, dstName, overwriteExisting, 0, &left);
}

bool File_Copy(const char *srcName, const char *dstName, bool overwriteExisting) {
  FileIODescriptor srcFd;
  const FileIOResult opened =
      FileIOOpenUnlocked(&srcFd, srcName, FILEIO_ACCESS_READ, FILEIO_OPEN, 0600);
  if (opened != FILEIO_SUCCESS) return TellOpenError(srcName, opened);
  uint64_t left = UINT64_MAX;
  return CopyAndClose(&srcFd, srcName, dstName, overwriteExisting, 0, &left);
}

bool FileCopyEntry(const FileEntry &src, const char *dstName, const FileCopyOptions &options) {
  FileIODescriptor srcFd;
  const FileIOResult opened = OpenEntry(src, options, &srcFd);
  if (opened != FILEIO_SUCCESS) return TellOpenError(src.path, opened);
  return CopyAndClose(&srcFd, src.path, dstName, options.overwriteExisting,
                      options.followSymlinks ? 0U : FILEIO_FLAG_NOFOLLOW | FILEIO_FLAG_NONBLOCK,
                      &options.left->bytes);
}
