// fileLock.cpp -- the portable on-disk lock.
//
// Idea:   Lamport's bakery, played with directory entries.  Everybody who wants the lock of a file
//         puts a member file with a number, one above the highest there is, into the directory FILE.lck
//         and waits until those with lower numbers have gone; equal numbers go by name.  An entry
//         directory tells that somebody is about to choose: the others wait for that, too.
// Holds:  1. Nobody goes on before there was a moment, after his member file was in place, when
//            nobody was choosing (fileLockScan.cpp).
//         2. Only mkdir, exclusive creation and rename decide; each is atomic on every file system
//            that is shared, and none needs the host's locks.
//         3. A member is removed by its owner, or by others of its machine when the owner's process
//            is dead; a member of another machine by its owner alone.  What cannot be a member is
//            removed by whoever meets it.
//         4. Who leaves, for whatever reason, removes his entries and tries to remove the
//            directory, which works for the last one.
//         5. Failures below are errno values, returned, not left in errno.
// Format: docs/lock-format.md
// Parts:  fileLockIntrinsic.cpp (which lock), fileLockEntry.cpp (into the queue), fileLockScan.cpp
//         (who is there), fileLockWait.cpp (who goes first), fileLockRecord.cpp, fileLockIdentity.cpp.
// Tests:  tests/unit/fileLock_test.cpp, tests/system/lockCrowd_test.cpp, fuzz/lockRecord_fuzz.cpp

#include "lib/public/fileLock.h"

#include <cerrno>

#include "lib/file/lock/fileLockInt.h"
#include "lib/public/err.h"
#include "lib/public/file.h"
#include "lib/public/heap.h"
#include "lib/public/msgList.h"
#include "lib/public/str.h"

namespace {

// The path by which everybody in this process knows the file, however its directory was called;
// null when there is none.  A bare name stays with the current directory.
HeapStr NormalizePath(const char *path) {
  char *dirName;
  char *baseName;
  File_GetPathName(path, &dirName, &baseName);
  const HeapStr dir(dirName);
  const HeapStr base(baseName);
  if (*dirName == '\0') {
    return HeapStr(Str_SafeAsprintf(nullptr, File_IsFullPath(path) ? "/%s" : "./%s", base.get()));
  }
  const HeapStr fullDir(File_FullPath(dir.get()));
  return fullDir == nullptr ? nullptr : HeapStr(File_PathJoin(fullDir.get(), base.get()));
}

// Tells a failure in every way there is.
void Fail(int error, int *err, MsgList **msgList) {
  *err = error;
  MsgList_Append(msgList, "@&!*@*@(msg.fileLock.posix)A file locking error (%d) has occurred: %s.",
                 error, Err_ErrnoToString(error));
  errno = error;
}

}  // namespace

// Neither host has one that works on every file system and between machines.
bool FileLockNativeIsDefault() {
  return false;
}

FileLockToken *FileLock_Lock(const char *path, bool readOnly, uint32_t msecMaxWait, int *err,
                             MsgList **msgList) {
  return FileLock_LockCancellable(path, readOnly, msecMaxWait, -1, err, msgList);
}

FileLockToken *FileLock_LockCancellable(const char *path, bool readOnly, uint32_t msecMaxWait,
                                        int cancelFd, int *err, MsgList **msgList) {
  const HeapStr normalized = NormalizePath(path);
  if (normalized == nullptr) {
    Fail(EINVAL, err, msgList);
    return nullptr;
  }
  *err = 0;
  FileLockToken *const token =
      FileLockIntrinsic(normalized.get(), !readOnly, msecMaxWait, cancelFd, err);
  if (token == nullptr) Fail(*err == 0 ? EAGAIN : *err, err, msgList);
  return token;
}

bool FileLock_Unlock(FileLockToken *token, int *err, MsgList **msgList) {
  *err = FileLockRelease(token);
  if (*err == 0) return true;
  Fail(*err, err, msgList);
  return false;
}
