// fileIOLock.cpp -- the lock that an open may request.
//
// Tests: tests/unit/fileIO_test.cpp, tests/unit/fileLock_test.cpp

#include <cerrno>
#include <utility>

#include "lib/file/io/fileIOFaceInt.h"
#include "lib/file/lock/fileLockInt.h"
#include "lib/public/err.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fileIO.h"
#include "lib/public/fileLock.h"
#include "lib/public/log.h"
#include "lib/public/msg.h"

namespace {

constexpr uint32_t kMaxWaitMs = 3500;

FileIOResult ResultOfLockError(int error) {
  switch (error) {
    case 0:
    case EROFS:
      return FILEIO_LOCK_FAILED;
    case ENOENT:
      return FILEIO_FILE_NOT_FOUND;
    case EACCES:
      return FILEIO_NO_PERMISSION;
    case ENAMETOOLONG:
      return FILEIO_FILE_NAME_TOO_LONG;
    default:
      return FILEIO_ERROR;
  }
}

}  // namespace

uint32_t FileIONormalizeAccess(uint32_t access) {
  if ((access & FILEIO_FLAG_LOCK_MANDATORY) != 0) access |= FILEIO_FLAG_LOCK_NATIVE;
  if ((access & FILEIO_FLAG_LOCK_DEFAULT) != 0) {
    access |= FileLockNativeIsDefault() ? FILEIO_FLAG_LOCK_NATIVE : FILEIO_FLAG_LOCK_PORTABLE;
  }
  return access & ~uint32_t{FILEIO_FLAG_LOCK_MANDATORY | FILEIO_FLAG_LOCK_DEFAULT};
}

FileIOResult FileIO_Lock(FileIODescriptor *fd, uint32_t access) {
  return FileIO_LockCancellable(fd, access, -1);
}

FileIOResult FileIO_LockCancellable(FileIODescriptor *fd, uint32_t access, int cancelFd) {
  const uint32_t wanted = FileIONormalizeAccess(access);
  if ((wanted & FILEIO_FLAG_LOCK_NATIVE) != 0) {
    errno = ENOTSUP;
    return FILEIO_LOCK_FAILED;
  }
  if ((wanted & FILEIO_FLAG_LOCK_PORTABLE) == 0) return FILEIO_SUCCESS;
  if (fd->fileName == nullptr || fd->lockToken != nullptr) {
    errno = fd->fileName == nullptr ? EFAULT : EDEADLK;
    return FILEIO_ERROR;
  }
  int error = 0;
  MsgList *messages = nullptr;
  const bool readOnly = (wanted & FILEIO_ACCESS_WRITE) == 0;
  fd->lockToken =
      FileLock_LockCancellable(fd->fileName, readOnly, kMaxWaitMs, cancelFd, &error, &messages);
  if (fd->lockToken != nullptr) return FILEIO_SUCCESS;
  Msg_AppendMsgList(messages);
  Log("FILE: %s on '%s' failed: %s\n", "FileIO_Lock", fd->fileName,
      error == 0 ? "Lock timed out" : Err_ErrnoToString(error));
  errno = error == 0 ? EAGAIN : error;
  return ResultOfLockError(error);
}

FileIOResult FileIO_Unlock(FileIODescriptor *fd) {
  FileLockToken *const token = std::exchange(fd->lockToken, nullptr);
  if (token == nullptr) return FILEIO_SUCCESS;
  int error = 0;
  MsgList *messages = nullptr;
  if (FileLock_Unlock(token, &error, &messages)) return FILEIO_SUCCESS;
  Msg_AppendMsgList(messages);
  Log("FILE: %s on '%s' failed: %s\n", "FileIO_Unlock", fd->fileName, Err_ErrnoToString(error));
  errno = error;
  return FILEIO_ERROR;
}
