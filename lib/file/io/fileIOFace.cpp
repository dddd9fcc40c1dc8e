// fileIOFace.cpp -- opening and closing with the lock that an open may request.
//
// Idea: a record gets its name first, its lock second and its open file last.  One procedure releases
//       all of them, whatever fails.
// Tests: tests/unit/fileIO_test.cpp

#include <unistd.h>

#include "lib/file/io/fileIOFaceInt.h"
#include "lib/file/raw/fileIOInt.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/file.h"
#include "lib/public/fileIO.h"
#include "lib/public/heap.h"

FileIOResult FileIO_Open(FileIODescriptor *fd, const char *path, uint32_t access,
                         FileIOOpenAction action) {
  return FileIOCreate(fd, path, access, action, 0600);
}

FileIOResult FileIOCreate(FileIODescriptor *fd, const char *path, uint32_t access,
                          FileIOOpenAction action, int mode) {
  if (!FileIOBegin(fd, path, FileIONormalizeAccess(access), action)) return FILEIO_ERROR;
  FileIOResult result = FileIO_Lock(fd, fd->flags);
  if (result == FILEIO_SUCCESS) result = FileIOOpenRecord(fd, action, mode);
  if (result != FILEIO_SUCCESS) FileIOUnlockAndRelease(fd);
  return result;
}

FileIOResult FileIO_Close(FileIODescriptor *fd) {
  const bool closed = close(fd->posix) == 0;
  FileIOUnlockAndRelease(fd);
  return closed ? FILEIO_SUCCESS : FILEIO_ERROR;
}

FileIOResult FileIO_CloseAndUnlink(FileIODescriptor *fd) {
  const HeapStr name = fd->fileName == nullptr ? nullptr : Heap_SafeStrdup(fd->fileName);
  if (FileIO_Close(fd) != FILEIO_SUCCESS) {
    const ErrnoKeeper keeper;
    File_DeleteIfPresent(name.get());
    return FILEIO_ERROR;
  }
  return File_DeleteIfPresent(name.get()) == 0 ? FILEIO_SUCCESS : FILEIO_ERROR;
}

void FileIOUnlockAndRelease(FileIODescriptor *fd) {
  const ErrnoKeeper keeper;
  FileIO_Unlock(fd);
  FileIOReleaseRecord(fd);
}
