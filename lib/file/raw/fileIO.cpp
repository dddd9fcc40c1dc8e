// fileIO.cpp -- open files without locks: results, records, whole transfers, closing.
//
// Invariants: 1. errno is that of the call that failed, even after logging and clean-up.
//             2. close(2) is never repeated: the descriptor is gone either way.
// Opening is in fileIOOpen.cpp, the variants with locks in ../io/fileIOFace.cpp, and vectors in
// ../io/fileIOVector.cpp.
// Tests: tests/unit/fileIO_test.cpp

#include "lib/public/fileIO.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>

#include "lib/file/raw/fileIOInt.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fatal.h"
#include "lib/public/log.h"

namespace {

constexpr char kSource[] = "lib/file/fileIO";

// By code.
constexpr std::array<const char *, FILEIO_RESERVED> kTexts = {
    "@&!*@*@(msg.fileio.success)Success",
    "@&!*@*@(msg.fileio.cancel)The operation was cancelled by the user",
    "@&!*@*@(msg.fileio.generic)Error",
    "@&!*@*@(msg.fileio.exists)The file already exists",
    "@&!*@*@(msg.fileio.lock)Failed to lock the file",
    "@&!*@*@(msg.fileio.eof)Tried to read beyond the end of the file",
    "@&!*@*@(msg.fileio.notfound)Could not find the file",
    "@&!*@*@(msg.fileio.noPerm)Insufficient permission to access the file",
    "@&!*@*@(msg.fileio.namelong)The file name is too long",
    "@&!*@*@(msg.fileio.fBig)The file is too large",
    "@&!*@*@(msg.fileio.noSpc)There is no space left on the device",
    "@&!*@*@(msg.fileio.dQuot)There is no space left on the device",
};

// The errno values that have a code of their own.
struct ErrnoRow {
  int value;
  FileIOResult result;
};
constexpr ErrnoRow kErrnos[] = {
    {ENOENT, FILEIO_FILE_NOT_FOUND},    {EACCES, FILEIO_NO_PERMISSION},
    {EEXIST, FILEIO_OPEN_ERROR_EXIST},  {EFBIG, FILEIO_WRITE_ERROR_FBIG},
    {ENOSPC, FILEIO_WRITE_ERROR_NOSPC}, {ENAMETOOLONG, FILEIO_FILE_NAME_TOO_LONG},
    {EDQUOT, FILEIO_WRITE_ERROR_DQUOT},
};

// Calls step(offset), a read(2) or write(2) of what remains, until `requested` bytes have been
// transferred or it returns 0 or an error other than EINTR.  False with errno after an error.
template <typename Step>
bool TransferAll(size_t requested, size_t *done, Step step) {
  *done = 0;
  while (*done < requested) {
    const ssize_t n = step(*done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    *done += static_cast<size_t>(n);
  }
  return true;
}

void StoreIfWanted(size_t *actual, size_t done) {
  if (actual != nullptr) *actual = done;
}

}  // namespace

// ---- results ---------------------------------------------------------------------------------

FileIOResult FileIOResultOfErrno(int errnoValue) {
  for (const ErrnoRow &row : kErrnos) {
    if (row.value == errnoValue) return row.result;
  }
  return FILEIO_ERROR;
}

const char *FileIO_MsgError(FileIOResult result) {
  if (result == FILEIO_RESERVED) Fatal_NotImplemented(kSource, 150);
  const auto code = static_cast<size_t>(result);  // a negative one becomes huge
  if (code < kTexts.size()) return kTexts[code];
  const ErrnoKeeper keeper;
  Log("%s: bad code %d\n", "FileIO_MsgError", static_cast<int>(result));
  return "@&!*@*@(msg.fileio.unknown)Unknown error";
}

// ---- the record ------------------------------------------------------------------------------

void FileIO_Invalidate(FileIODescriptor *fd) {
  *fd = {.posix = -1, .flags = 0, .fileName = nullptr, .lockToken = nullptr};
}

bool FileIO_IsValid(const FileIODescriptor *fd) {
  return fd->posix != -1;
}

void FileIOReleaseRecord(FileIODescriptor *fd) {
  const ErrnoKeeper keeper;
  free(fd->fileName);
  FileIO_Invalidate(fd);
}

int64_t FileIO_GetSize(const FileIODescriptor *fd) {
  struct stat status;
  return fstat(fd->posix, &status) == 0 ? status.st_size : -1;
}

// ---- transfers -------------------------------------------------------------------------------

FileIOResult FileIO_Read(FileIODescriptor *fd, void *buffer, size_t requested, size_t *actual) {
  if (requested > kFileIOMaxRequest) Fatal_Verify(kSource, 161);
  auto *const bytes = static_cast<char *>(buffer);
  size_t done = 0;
  const bool ok = TransferAll(requested, &done, [&](size_t offset) {
    return read(fd->posix, bytes + offset, requested - offset);
  });
  StoreIfWanted(actual, done);
  if (!ok) return FileIOResultOfErrno(errno);
  return done < requested ? FILEIO_READ_ERROR_EOF : FILEIO_SUCCESS;
}

FileIOResult FileIO_Write(FileIODescriptor *fd, const void *buffer, size_t requested,
                          size_t *actual) {
  if (requested > kFileIOMaxRequest) Fatal_Verify(kSource, 176);
  const auto *const bytes = static_cast<const char *>(buffer);
  size_t done = 0;
  const bool ok = TransferAll(requested, &done, [&](size_t offset) {
    return write(fd->posix, bytes + offset, requested - offset);
  });
  StoreIfWanted(actual, done);
  // A device that accepts no bytes and reports no error is full; asking again would never end.
  if (ok && done < requested) errno = ENOSPC;
  return done < requested ? FileIOResultOfErrno(errno) : FILEIO_SUCCESS;
}

// ---- closing ---------------------------------------------------------------------------------

FileIOResult FileIOCloseUnlocked(FileIODescriptor *fd) {
  const bool closed = close(fd->posix) == 0;
  FileIOReleaseRecord(fd);
  return closed ? FILEIO_SUCCESS : FILEIO_ERROR;
}
