// fileIOInt.h -- open files without locks, for the layers above.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "lib/public/fileIO.h"

// The largest transfer; macOS refuses more with EINVAL.
inline constexpr size_t kFileIOMaxRequest = 0x7FFFFFFF;

// The code of an errno value.
[[nodiscard]] FileIOResult FileIOResultOfErrno(int errnoValue);

// The code of errno; when that is FILEIO_ERROR, logs `format`, which takes the path and the text of
// errno.  errno stays.
[[nodiscard]] FileIOResult FileIOReport(const char *format, const char *path);

// ---- open files without locks ----------------------------------------------------------------
//
// The lock itself and the copies use these; FileIO_Open and FileIO_Close add a lock to them.

// Makes a record with the name `path`; nothing is open yet.  False, with *fd invalid, for a null path
// (EFAULT) or an unknown action (EINVAL).
[[nodiscard]] bool FileIOBegin(FileIODescriptor *fd, const char *path, uint32_t access,
                               FileIOOpenAction action);

// Opens the file of a record as its flags say, except for locks.  A failure leaves the record as it was
// and the cause in errno; FILEIO_ERROR is logged.
[[nodiscard]] FileIOResult FileIOOpenRecord(FileIODescriptor *fd, FileIOOpenAction action,
                                            int mode);

// FileIOBegin and FileIOOpenRecord; *fd is invalid after a failure.
[[nodiscard]] FileIOResult FileIOOpenUnlocked(FileIODescriptor *fd, const char *path,
                                              uint32_t access, FileIOOpenAction action, int mode);

// Closes a file that has no lock, and releases its record.
FileIOResult FileIOCloseUnlocked(FileIODescriptor *fd);

// Frees the name and makes *fd invalid; the descriptor stays open.  errno stays.
void FileIOReleaseRecord(FileIODescriptor *fd);
