// fileIOReplace.cpp -- a file replaced by a complete new one, at one moment.
//
// Idea: the new file is on the device before rename(2) puts it in the place of the old one, so neither
//       a reader nor a crash finds half of it (on macOS fsync(2) only reaches the drive's own cache,
//       which a loss of power empties).  Nothing can fail after the rename, so the records are
//       changed only then.
// Tests: tests/unit/fileIO_test.cpp

#include <stdio.h>
#include <unistd.h>

#include <utility>

#include "lib/file/io/fileIOFaceInt.h"
#include "lib/file/raw/fileIOInt.h"
#include "lib/public/fd.h"
#include "lib/public/fileIO.h"

FileIOResult FileIO_Replace(FileIODescriptor *current, FileIODescriptor *fresh) {
  if (fsync(fresh->posix) != 0) {
    return FileIOReport("FILE:fsync error on %s: %s\n", fresh->fileName);
  }
  if (rename(fresh->fileName, current->fileName) != 0) {
    return FileIOReport("FILE:rename error on %s: %s\n", fresh->fileName);
  }
  const Fd old(std::exchange(current->posix, fresh->posix));
  constexpr uint32_t kLocks = FILEIO_FLAG_LOCK_PORTABLE | FILEIO_FLAG_LOCK_NATIVE;
  current->flags = (current->flags & kLocks) | (fresh->flags & ~kLocks);
  FileIOUnlockAndRelease(fresh);
  return FILEIO_SUCCESS;
}
