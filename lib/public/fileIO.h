// fileIO.h -- open files: one way to open, whole transfers, and results with a text for the user.
//
// A FileIODescriptor is a plain record that the caller owns: FileIO_Open fills it, and FileIO_Close or
// FileIO_CloseAndUnlink empties it.  It is used by one thread at a time.  Descriptors are
// close-on-exec.
//
// Results are codes with a text (FileIO_MsgError); after a failure errno has the underlying cause,
// whatever has been cleaned up since.  An errno without a code of its own gives FILEIO_ERROR.
// Pointers must not be null unless stated otherwise.  Exhausted memory is fatal.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

struct FileLockToken;

struct FileIODescriptor {
  int32_t posix;             // -1 when invalid
  uint32_t flags;            // FileIOAccess as requested, with the kind of lock resolved
  char *fileName;            // the path it was opened by; owned; null if there is none
  FileLockToken *lockToken;  // owned; null when no lock is held
};

enum FileIOResult : int32_t {
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
  FILEIO_RESERVED = 12,  // never returned
};

enum FileIOOpenAction : int32_t {
  FILEIO_OPEN = 0,               // must exist
  FILEIO_OPEN_EMPTY = 1,         // must exist, and is emptied
  FILEIO_OPEN_CREATE = 2,        // is created when missing
  FILEIO_OPEN_CREATE_SAFE = 3,   // must not exist
  FILEIO_OPEN_CREATE_EMPTY = 4,  // is created when missing, or emptied
};

enum FileIOAccess : uint32_t {
  FILEIO_ACCESS_READ = 0x1,
  FILEIO_ACCESS_WRITE = 0x2,
  // Bypasses the cache; each write is on the device when it returns (see platform/uncached.h).
  FILEIO_FLAG_SYNC = 0x4,
  FILEIO_FLAG_UNLINK_AFTER_OPEN = 0x8,  // the open file stays usable
  // Bypasses the cache; vectors go through aligned buffers.
  FILEIO_FLAG_UNBUFFERED = 0x10,
  FILEIO_FLAG_LOCK_DEFAULT = 0x20,  // FILEIO_FLAG_LOCK_PORTABLE on these hosts
  FILEIO_FLAG_NONBLOCK = 0x80,
  FILEIO_FLAG_PRIVILEGED = 0x100,  // opens as the super-user, but never creates or empties a file
  FILEIO_FLAG_EXCLUSIVE_READ = 0x200,  // with the next: O_EXCL; alone: nothing
  FILEIO_FLAG_EXCLUSIVE_WRITE = 0x400,
  FILEIO_FLAG_LOCK_MANDATORY = 0x2000,  // means FILEIO_FLAG_LOCK_NATIVE
  FILEIO_FLAG_EXLOCK = 0x10000,  // waits for an exclusive flock(2); the file is emptied under it
  FILEIO_FLAG_APPEND = 0x20000,
  FILEIO_FLAG_NOFOLLOW = 0x40000,
  FILEIO_FLAG_LOCK_PORTABLE = 0x100000,  // see FileIO_Lock
  FILEIO_FLAG_LOCK_NATIVE = 0x200000,    // unsupported: FILEIO_LOCK_FAILED
};

// ---- results ---------------------------------------------------------------------------------

// The text of a result for the user, with its message id in front; a constant.  An unknown code is
// logged and has a text of its own; FILEIO_RESERVED is fatal.
[[nodiscard]] const char *FileIO_MsgError(FileIOResult result);

// ---- opening and closing ---------------------------------------------------------------------

// Makes *fd invalid, whatever it held.
void FileIO_Invalidate(FileIODescriptor *fd);
[[nodiscard]] bool FileIO_IsValid(const FileIODescriptor *fd);

// FileIOCreate with mode 0600.
[[nodiscard]] FileIOResult FileIO_Open(FileIODescriptor *fd, const char *path, uint32_t access,
                                       FileIOOpenAction action);

// Opens `path` and fills *fd, whose previous content is ignored; after a failure *fd is invalid.
// `access` is a set of FileIOAccess; `mode` is that of a new file, less the umask.  A null path is
// EFAULT, an unknown action EINVAL.  With FILEIO_FLAG_PRIVILEGED an action that creates or empties
// is EACCES.  A lock is taken before the file is touched.  A file that was created stays when a later
// step fails.  FILEIO_ERROR of a system call is logged.
[[nodiscard]] FileIOResult FileIOCreate(FileIODescriptor *fd, const char *path, uint32_t access,
                                        FileIOOpenAction action, int mode);

// Installs a replacement for privileged opens: it behaves like open(2) with `flags` and returns a
// close-on-exec descriptor or -1 with errno.  Null restores the library's own way.  Must be set before
// threads start.
using FileIOPrivilegedOpenFn = int (*)(const char *path, int flags);
void FileIO_SetPrivilegedOpen(FileIOPrivilegedOpenFn open);

// A descriptor without a name for `posix`, which it owns from now on; its flags say how `posix` was
// opened.  Invalid, with errno, when `posix` is not open.
[[nodiscard]] FileIODescriptor FileIO_FromPosix(int posix);

// Closes *fd and releases its lock; *fd is invalid afterwards.  FILEIO_ERROR when close(2) failed:
// then what was written may be lost.
FileIOResult FileIO_Close(FileIODescriptor *fd);

// The same, then removes the file as File_DeleteIfPresent does, also after a failed close.
// FILEIO_ERROR when either failed, with the first errno.
FileIOResult FileIO_CloseAndUnlink(FileIODescriptor *fd);

// ---- transfers -------------------------------------------------------------------------------
//
// Short transfers and EINTR are continued until everything has been transferred.  *actual, unless
// `actual` is null, receives the number of bytes transferred, also after a failure.  A request above
// 0x7FFFFFFF bytes is fatal.

// FILEIO_READ_ERROR_EOF when the file ends early: the bytes before its end are in the buffer.
[[nodiscard]] FileIOResult FileIO_Read(FileIODescriptor *fd, void *buffer, size_t requested,
                                       size_t *actual);
[[nodiscard]] FileIOResult FileIO_Write(FileIODescriptor *fd, const void *buffer, size_t requested,
                                        size_t *actual);

// The size of the file in bytes, or -1 with errno.
[[nodiscard]] int64_t FileIO_GetSize(const FileIODescriptor *fd);

// ---- vectors ---------------------------------------------------------------------------------
//
// `totalSize` is the sum of the lengths of the `numEntries` entries.  More gives FILEIO_ERROR with
// EINVAL after everything was transferred, less before anything was.  Many small entries go through
// one buffer of totalSize bytes (see FileIO_SetConfigStore), so that one call transfers them.

// FILEIO_READ_ERROR_EOF as for FileIO_Read.
[[nodiscard]] FileIOResult FileIO_Readv(FileIODescriptor *fd, const iovec *entries, int numEntries,
                                        size_t totalSize, size_t *actual);

// A write that ends inside an entry is not continued: FILEIO_WRITE_ERROR_NOSPC with ENOSPC.
[[nodiscard]] FileIOResult FileIO_Writev(FileIODescriptor *fd, const iovec *entries, int numEntries,
                                         size_t totalSize, size_t *actual);

// Writes at `offset`, and leaves the file's own position alone; through one buffer whenever there is
// more than one entry and enough memory.  With FILEIO_FLAG_APPEND, Linux appends whatever `offset` is
// (pwrite(2)); macOS writes at `offset`.
[[nodiscard]] FileIOResult FileIOPwritevCoalesced(FileIODescriptor *fd, const iovec *entries,
                                                  int numEntries, size_t totalSize, off_t offset,
                                                  size_t *actual);

// Installs the procedure that looks up settings: true with *value set (truth values are 0 and 1), or
// false when `key` has no value.  The keys and their defaults:
//   filePosix.coalesce.enable    1      use one buffer at all
//   filePosix.coalesce.aligned   0      always an aligned one
//   filePosix.coalesce.count     5      only for more entries than that
//   filePosix.coalesce.size      16384  only when they are smaller than that on average, in bytes
//   aiomgr.numThreads            0      kept for others
// They are read once, at the first use of a vector, so the procedure must be installed before.
using FileIOConfigFn = bool (*)(const char *key, int64_t *value);
void FileIO_SetConfigStore(FileIOConfigFn read);

// ---- locks -----------------------------------------------------------------------------------

// Takes the lock that `access` requests on fd->fileName (see fileLock.h); FILEIO_SUCCESS when it
// requests none.  The lock is exclusive with FILEIO_ACCESS_WRITE, and shared without it.  Waits about
// 3.5 s for other holders, then FILEIO_ERROR with EAGAIN.  FILEIO_LOCK_FAILED: this kind of lock is
// unsupported (ENOTSUP), or the media are read-only and the lock would be exclusive (EROFS).  A
// failure of the portable lock is logged.  A descriptor without a name is EFAULT, and one that holds
// a lock already EDEADLK.
[[nodiscard]] FileIOResult FileIO_Lock(FileIODescriptor *fd, uint32_t access);

// The same for a wait that may be given up: FILEIO_ERROR with ECANCELED as soon as the descriptor
// `cancelFd` is readable; see FileLock_LockCancellable.  -1: nothing to watch.
[[nodiscard]] FileIOResult FileIO_LockCancellable(FileIODescriptor *fd, uint32_t access,
                                                  int cancelFd);

// Releases the lock, if there is one; *fd has none afterwards, even after FILEIO_ERROR, which is
// logged.
FileIOResult FileIO_Unlock(FileIODescriptor *fd);

// ---- atomic replacement ----------------------------------------------------------------------

// Puts the complete new file *fresh in the place of the file *current; both were opened by name, in one
// file system.  Opening the name of `current` finds either the old file or the whole new one, also
// after a crash, and on Linux after a loss of power.  Afterwards *current is the new file under the
// old name and keeps its lock, *fresh is invalid, and the name of `fresh` is gone.  The new file keeps
// its own mode and owner.  After a failure both are as before; FILEIO_ERROR is logged.
[[nodiscard]] FileIOResult FileIO_Replace(FileIODescriptor *current, FileIODescriptor *fresh);
