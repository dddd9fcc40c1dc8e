// fileIO.h -- open files: one way to open, whole transfers, and results with a text for the user.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

struct FileLockToken;

struct FileIODescriptor {
  int32_t posix;
  uint32_t flags;
  char *fileName;
  FileLockToken *lockToken;
};

enum FileIOResult {
  FILEIO_SUCCESS = 0,
  FILEIO_CANCELLED = 1,
  FILEIO_ERROR = 2,
  FILEIO_OPEN_ERROR_EXIST = 3,
  FILEIO_LOCK_FAILED = 4,
  FILEIO_READ_ERROR_EOF = 5,
  FILEIO_FILE_NOT_FOUND = 6,
  FILEIO_NO_PERMISSION = 7,
  FILEIO_FILE_NAME_TOO_LONG = 8,
  FILEIO_WRITE_ERROR_FBIG = 9,
  FILEIO_WRITE_ERROR_NOSPC = 10,
  FILEIO_WRITE_ERROR_DQUOT = 11,
  FILEIO_RESERVED = 12,
};

enum FileIOOpenAction {
  FILEIO_OPEN = 0,
  FILEIO_OPEN_EMPTY = 1,
  FILEIO_OPEN_CREATE = 2,
  FILEIO_OPEN_CREATE_SAFE = 3,
  FILEIO_OPEN_CREATE_EMPTY = 4,
};

enum FileIOAccess : uint32_t {
  FILEIO_ACCESS_READ = 0x1,
  FILEIO_ACCESS_WRITE = 0x2,
  FILEIO_FLAG_SYNC = 0x4,
  FILEIO_FLAG_UNLINK_AFTER_OPEN = 0x8,
  FILEIO_FLAG_UNBUFFERED = 0x10,
  FILEIO_FLAG_LOCK_DEFAULT = 0x20,
  FILEIO_FLAG_NONBLOCK = 0x80,
  FILEIO_FLAG_PRIVILEGED = 0x100,
  FILEIO_FLAG_EXCLUSIVE_READ = 0x200,
  FILEIO_FLAG_EXCLUSIVE_WRITE = 0x400,
  FILEIO_FLAG_LOCK_MANDATORY = 0x2000,
  FILEIO_FLAG_EXLOCK = 0x10000,
  FILEIO_FLAG_APPEND = 0x20000,
  FILEIO_FLAG_NOFOLLOW = 0x40000,
  FILEIO_FLAG_LOCK_PORTABLE = 0x100000,
  FILEIO_FLAG_LOCK_NATIVE = 0x200000,
};

void FileIO_Invalidate(FileIODescriptor *fd);
[[nodiscard]] bool FileIO_IsValid(const FileIODescriptor *fd);
[[nodiscard]] FileIOResult FileIO_Open(FileIODescriptor *fd, const char *path, uint32_t access,
                                       FileIOOpenAction action);
[[nodiscard]] FileIOResult FileIOCreate(FileIODescriptor *fd, const char *path, uint32_t access,
                                        FileIOOpenAction action, int mode);
[[nodiscard]] FileIOResult FileIO_Read(FileIODescriptor *fd, void *buffer, size_t requested,
                                       size_t *actual);
[[nodiscard]] FileIOResult FileIO_Write(FileIODescriptor *fd, const void *buffer, size_t requested,
                                        size_t *actual);
FileIOResult FileIO_Close(FileIODescriptor *fd);
FileIOResult FileIO_CloseAndUnlink(FileIODescriptor *fd);
[[nodiscard]] const char *FileIO_MsgError(FileIOResult result);
[[nodiscard]] FileIOResult FileIO_Lock(FileIODescriptor *fd, uint32_t access);
FileIOResult FileIO_Unlock(FileIODescriptor *fd);
