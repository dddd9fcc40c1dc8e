// fileIOLock.cpp -- the lock that an open may ask for.
//
// Holds:  there is no portable lock in this library.  Who asks for one is refused, never given a
//         file without it; TakeLock and ReleaseLock are the one place that a lock module replaces.
// Tests:  tests/unit/fileIO_test.cpp

#include <cerrno>
#include <utility>

#include "err.h"
#include "errnoKeeper.h"
#include "fatal.h"
#include "fileIO.h"
#include "fileIOInt.h"
#include "log.h"

namespace {

constexpr unsigned kMaxWaitMs = 3500;

// The lock on `path`, shared when readOnly; null with the cause in *error, 0 when the time was up.
FileLockToken *TakeLock(const char * /*path*/, bool /*readOnly*/, unsigned /*maxWaitMs*/,
                        int *error) {
  *error = ENOTSUP;
  return nullptr;
}

// Frees the token in any case.  False with the cause in *error.
bool ReleaseLock(FileLockToken * /*token*/, int * /*error*/) {
  Fatal_NotReached("lib/file/fileIOLock", 35);  // no token was ever given out
}

// Whether a lock of the host itself stands for FILEIO_FLAG_LOCK_DEFAULT.
constexpr bool kNativeLockIsDefault = false;

FileIOResult ResultOfLockError(int error) {
  switch (error) {
    case 0:
    case EROFS:
    case ENOTSUP:
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
    access |= kNativeLockIsDefault ? FILEIO_FLAG_LOCK_NATIVE : FILEIO_FLAG_LOCK_PORTABLE;
  }
  return access & ~uint32_t{FILEIO_FLAG_LOCK_MANDATORY | FILEIO_FLAG_LOCK_DEFAULT};
}

FileIOResult FileIO_Lock(FileIODescriptor *fd, uint32_t access) {
  const uint32_t wanted = FileIONormalizeAccess(access);
  if ((wanted & FILEIO_FLAG_LOCK_NATIVE) != 0) {
    errno = ENOTSUP;
    return FILEIO_LOCK_FAILED;
  }
  if ((wanted & FILEIO_FLAG_LOCK_PORTABLE) == 0) return FILEIO_SUCCESS;
  int error = 0;
  const bool readOnly = (wanted & FILEIO_ACCESS_WRITE) == 0;
  fd->lockToken = TakeLock(fd->fileName, readOnly, kMaxWaitMs, &error);
  if (fd->lockToken != nullptr) return FILEIO_SUCCESS;
  Log("FILE: %s on '%s' failed: %s\n", "FileIO_Lock", fd->fileName,
      error == 0 ? "Lock timed out" : Err_ErrnoToString(error));
  errno = error == 0 ? EAGAIN : error;
  return ResultOfLockError(error);
}

FileIOResult FileIO_Unlock(FileIODescriptor *fd) {
  FileLockToken *const token = std::exchange(fd->lockToken, nullptr);
  if (token == nullptr) return FILEIO_SUCCESS;
  int error = 0;
  if (ReleaseLock(token, &error)) return FILEIO_SUCCESS;
  Log("FILE: %s on '%s' failed: %s\n", "FileIO_Unlock", fd->fileName, Err_ErrnoToString(error));
  errno = error;
  return FILEIO_ERROR;
}
