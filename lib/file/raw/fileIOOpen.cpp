// fileIOOpen.cpp -- opening without a lock: from access flags and an action to an open file and its
// record.
//
// Tests: tests/unit/fileIO_test.cpp

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "lib/file/raw/fileIOInt.h"
#include "lib/public/err.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fd.h"
#include "lib/public/fileIO.h"
#include "lib/public/heap.h"
#include "lib/public/id.h"
#include "lib/public/log.h"
#include "platform/files.h"
#include "platform/uncached.h"

namespace {

std::atomic<FileIOPrivilegedOpenFn> privilegedOpen = nullptr;

// By action.
constexpr int kActionFlags[] = {0, O_TRUNC, O_CREAT, O_CREAT | O_EXCL, O_CREAT | O_TRUNC};

// Access flags that correspond to a flag of open(2).
struct FlagRow {
  uint32_t access;
  int flag;
};
constexpr FlagRow kFlags[] = {
    {FILEIO_FLAG_NONBLOCK, O_NONBLOCK},
    {FILEIO_FLAG_EXCLUSIVE_READ | FILEIO_FLAG_EXCLUSIVE_WRITE, O_EXCL},
    {FILEIO_FLAG_APPEND, O_APPEND},
    {FILEIO_FLAG_NOFOLLOW, O_NOFOLLOW},
};

bool HasAll(uint32_t access, uint32_t bits) {
  return (access & bits) == bits;
}

bool WantsUncached(uint32_t access) {
  return (access & (FILEIO_FLAG_SYNC | FILEIO_FLAG_UNBUFFERED)) != 0;
}

int AccessMode(uint32_t access) {
  if (!HasAll(access, FILEIO_ACCESS_WRITE)) return O_RDONLY;
  return HasAll(access, FILEIO_ACCESS_READ) ? O_RDWR : O_WRONLY;
}

int OpenFlags(uint32_t access, FileIOOpenAction action) {
  int flags = AccessMode(access) | kActionFlags[action] | O_CLOEXEC;
  for (const FlagRow &row : kFlags) {
    if (HasAll(access, row.access)) flags |= row.flag;
  }
  if (WantsUncached(access)) flags |= Platform_UncachedOpenFlags(HasAll(access, FILEIO_FLAG_SYNC));
  return flags;
}

// ---- the open ----------------------------------------------------------------------------------

int OpenPlain(const char *path, int flags, int mode, bool locked) {
  const auto bits = static_cast<mode_t>(mode);
  return locked ? Platform_OpenLocked(path, flags, bits) : open(path, flags, bits);
}

int OpenByReplacement(FileIOPrivilegedOpenFn replacement, const char *path, int flags,
                      bool locked) {
  Fd fd(replacement(path, flags));
  const int wait = (flags & O_NONBLOCK) != 0 ? LOCK_NB : 0;
  if (fd && locked && flock(fd.Get(), LOCK_EX | wait) != 0) return -1;
  return fd.Release();
}

// Creating and emptying are refused before anything runs: through a privileged program, a user could
// have any file created or emptied by the super-user.
int OpenPrivileged(const char *path, int flags, bool locked) {
  if ((flags & (O_CREAT | O_TRUNC)) != 0) {
    errno = EACCES;
    return -1;
  }
  const FileIOPrivilegedOpenFn replacement = privilegedOpen.load(std::memory_order_acquire);
  if (replacement != nullptr) return OpenByReplacement(replacement, path, flags, locked);
  if (geteuid() == 0) return OpenPlain(path, flags, 0, locked);
  // PRIV: one open of an existing file as the super-user.
  const uid_t saved = Id_BeginSuperUser();
  const int fd = OpenPlain(path, flags, 0, locked);
  const ErrnoKeeper keeper;
  Id_EndSuperUser(saved);
  return fd;
}

}  // namespace

FileIOResult FileIOReport(const char *format, const char *path) {
  const ErrnoKeeper keeper;
  const FileIOResult result = FileIOResultOfErrno(keeper.Get());
  if (result == FILEIO_ERROR) Log(format, path, Err_ErrnoToString(keeper.Get()));
  return result;
}

void FileIO_SetPrivilegedOpen(FileIOPrivilegedOpenFn open) {
  privilegedOpen.store(open, std::memory_order_release);
}

bool FileIOBegin(FileIODescriptor *fd, const char *path, uint32_t access, FileIOOpenAction action) {
  FileIO_Invalidate(fd);
  if (path == nullptr || action < FILEIO_OPEN || action > FILEIO_OPEN_CREATE_EMPTY) {
    errno = path == nullptr ? EFAULT : EINVAL;
    return false;
  }
  fd->flags = access;
  fd->fileName = Heap_SafeStrdup(path).release();
  return true;
}

FileIOResult FileIOOpenRecord(FileIODescriptor *fd, FileIOOpenAction action, int mode) {
  const uint32_t access = fd->flags;
  const char *const path = fd->fileName;
  const int flags = OpenFlags(access, action);
  const bool locked = HasAll(access, FILEIO_FLAG_EXLOCK);
  Fd opened(HasAll(access, FILEIO_FLAG_PRIVILEGED) ? OpenPrivileged(path, flags, locked)
                                                   : OpenPlain(path, flags, mode, locked));
  if (!opened) return FileIOReport("FILE:open error on %s: %s\n", path);
  if (WantsUncached(access) &&
      Platform_SetUncached(opened.Get(), HasAll(access, FILEIO_FLAG_SYNC)) != 0) {
    return FileIOReport("FILE:fcntl error on %s: %s\n", path);
  }
  if (HasAll(access, FILEIO_FLAG_UNLINK_AFTER_OPEN) && unlink(path) != 0) {
    return FileIOReport("FILE:unlink error on %s: %s\n", path);
  }
  fd->posix = opened.Release();
  return FILEIO_SUCCESS;
}

FileIOResult FileIOOpenUnlocked(FileIODescriptor *fd, const char *path, uint32_t access,
                                FileIOOpenAction action, int mode) {
  if (!FileIOBegin(fd, path, access, action)) return FILEIO_ERROR;
  const FileIOResult result = FileIOOpenRecord(fd, action, mode);
  if (result != FILEIO_SUCCESS) FileIOReleaseRecord(fd);
  return result;
}

FileIODescriptor FileIO_FromPosix(int posix) {
  FileIODescriptor fd;
  FileIO_Invalidate(&fd);
  const int flags = fcntl(posix, F_GETFL);
  if (flags == -1) return fd;
  fd.posix = posix;
  const int mode = flags & O_ACCMODE;
  if (mode == O_RDONLY || mode == O_RDWR) fd.flags |= FILEIO_ACCESS_READ;
  if (mode == O_WRONLY || mode == O_RDWR) fd.flags |= FILEIO_ACCESS_WRITE;
  // All of its bits: on Linux O_DSYNC is one of them.
  if ((flags & O_FSYNC) == O_FSYNC) fd.flags |= FILEIO_FLAG_SYNC;
  if ((flags & O_APPEND) != 0) fd.flags |= FILEIO_FLAG_APPEND;
  return fd;
}
