// fileIOInt.h -- open files without locks, for the layers above.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "lib/public/fileIO.h"

// No transfer is larger; macOS refuses more than that with EINVAL.
inline constexpr size_t kFileIOMaxRequest = 0x7FFFFFFF;

// The code of an errno value.
[[nodiscard]] FileIOResult FileIOResultOfErrno(int errnoValue);

// The code of errno; when that is FILEIO_ERROR, logs `format`, which takes the path and the text of
// errno.  errno stays.
[[nodiscard]] FileIOResult FileIOReport(const char *format, const char *path);

// ---- open files without locks ----------------------------------------------------------------
//
// What the lock itself and the copies use; FileIO_Open and FileIO_Close are these and a lock.

// Makes a record with the name `path`; nothing is open yet.  False with errno set, and *fd invalid, when
// the path is null (EFAULT) or `action` is none (EINVAL).
[[nodiscard]] bool FileIOBegin(FileIODescriptor *fd, const char *path, uint32_t access,
                               FileIOOpenAction action);

// Opens the file of a record by its flags; what they say of locks means nothing here.  On failure the
// record is as it was, with the cause in errno and, if need be, in the log.
[[nodiscard]] FileIOResult FileIOOpenRecord(FileIODescriptor *fd, FileIOOpenAction action,
                                            int mode);

// Both of them; *fd is invalid after a failure.
[[nodiscard]] FileIOResult FileIOOpenUnlocked(FileIODescriptor *fd, const char *path,
                                              uint32_t access, FileIOOpenAction action, int mode);

// Closes the file and releases the record, of a file without a lock.
FileIOResult FileIOCloseUnlocked(FileIODescriptor *fd);

// Frees the name and makes *fd invalid; the descriptor stays open.  errno stays.
void FileIOReleaseRecord(FileIODescriptor *fd);
