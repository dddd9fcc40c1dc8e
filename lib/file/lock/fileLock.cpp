// fileLock.cpp -- the portable on-disk lock: taking it in four steps, and releasing it.
//
// Idea:   Lamport's bakery, played with directory entries.  A participant puts a member file with a
//         number, one above the highest there is, into the directory FILE.lck and waits until those
//         with lower numbers have gone; equal numbers go by name.  While it chooses that number it
//         has an entry directory there, too, and others wait for its choice.
// Invariants:
//         1. Nobody takes the lock before all who were choosing, when its own member file was in
//            place, have chosen: they may get a lower number.  Those who come later see the member
//            file and get a higher one (fileLockWait.cpp).
//         2. Only mkdir, exclusive creation and rename decide; each is atomic on every file system
//            that is shared, and none needs the host's locks.
//         3. A member file that can be a record is removed by its owner, or on the owner's machine
//            when the owner's process is dead; nobody else can know.  So it stays when its choosing
//            has taken too long: only the entry directory goes then.  A live participant finds that
//            out, since its own removal fails, and leaves.
//         4. Anyone leaving, for any reason, removes its own entries and tries to remove the
//            directory, which works for the last one.
// Format: docs/lock-format.md
// Parts:  fileLockEntry.cpp (into the queue), fileLockWait.cpp (whose turn it is), fileLockScan.cpp
//         (who is there), fileLockRecord.cpp, fileLockIdentity.cpp, fileSleeper.cpp.
// Tests: tests/unit/fileLock_test.cpp, tests/system/lockCrowd_test.cpp, tests/system/lockMachines_test,
// tests/system/lockWriters_test, fuzz/lockRecord_fuzz.cpp

#include "lib/public/fileLock.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "lib/file/lock/fileLockInt.h"
#include "lib/public/err.h"
#include "lib/public/fatal.h"
#include "lib/public/file.h"
#include "lib/public/heap.h"
#include "lib/public/log.h"
#include "lib/public/monotonicClock.h"
#include "lib/public/msgList.h"
#include "lib/public/str.h"

namespace {

constexpr char kTag[] = {'F', 'L', 'C', 'K'};

}  // namespace

struct FileLockToken {
  char tag[sizeof kTag];  // what the caller gives back is one of ours
  HeapStr lockDir;
  HeapStr memberFile;  // null: granted without an entry
};

namespace {

FileLockToken *NewToken(FileLockRequest *request, HeapStr memberFile) {
  HeapPtr<FileLockToken> token = Heap_New<FileLockToken>();
  memcpy(token->tag, kTag, sizeof kTag);
  token->lockDir = std::move(request->lockDir);
  token->memberFile = std::move(memberFile);
  return token.release();
}

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

// Reports a failure in every way there is; null.
std::nullptr_t Refuse(int error, int *err, MsgList **msgList) {
  *err = error;
  MsgList_Append(msgList, "@&!*@*@(msg.fileLock.posix)A file locking error (%d) has occurred: %s.",
                 error, Err_ErrnoToString(error));
  errno = error;
  return nullptr;
}

// Whether a lock is granted although there can be no entry: nobody can have one there, so readers
// disturb nobody.
bool IsImplicit(const FileLockRequest &request, int error) {
  if (request.IsExclusive() || (error != EROFS && error != EACCES)) return false;
  Log("FILE: %s implicit %s lock succeeded on '%s'.\n", "FileLockIntrinsicPortable",
      kFileLockShared, request.path);
  return true;
}

// Errno-style: leaves the queue.
int Leave(const FileLockToken &token) {
  if (token.memberFile == nullptr) return 0;
  const int error = FileDeletePath(token.memberFile.get(), false);
  // Fails while others are inside.
  File_DeleteEmptyDirectory(token.lockDir.get());
  return error;
}

// Errno-style: the portable lock, step by step.
int FileLockIntrinsicPortable(FileLockRequest *request, FileLockToken **token) {
  FileLockPaths paths;
  int error = FileLockCreateEntryDirectory(*request, &paths);  // 1. the entry
  if (IsImplicit(*request, error)) {
    *token = NewToken(request, nullptr);
    return 0;
  }
  if (error == 0) error = FileLockCreateMemberFile(request, paths);         // 2. the member
  if (error == 0) error = FileLockAwaitTurn(*request, paths);               // 3. the turn
  if (error == 0) *token = NewToken(request, std::move(paths.memberFile));  // 4. the token
  return error;
}

// Errno-style: takes the kind of lock that is the default here, which is the portable one.
int FileLockIntrinsic(const char *path, bool exclusive, uint32_t msecMaxWait, int cancelFd,
                      FileLockToken **token) {
  static_assert(!FileLockNativeIsDefault());
  FileLockRequest request(path, exclusive, msecMaxWait, cancelFd);
  return FileLockIntrinsicPortable(&request, token);
}

}  // namespace

FileLockRequest::FileLockRequest(const char *filePath, bool exclusive, uint32_t waitMs,
                                 int cancelDescriptor)
    : path(filePath),
      lockDir(Str_SafeAsprintf(nullptr, "%s%s", filePath, kFileLockSuffix)),
      msecMaxWait(waitMs),
      cancelFd(cancelDescriptor),
      startMs(MonotonicClock_Ms()),
      execution(FileLockOwnExecution()),
      payload(FileLockMakePayload(Dir())),
      me{.machineID = execution.machineID,
         .executionID = execution.text,
         .lockType = exclusive ? kFileLockExclusive : kFileLockShared,
         .memberName = "",
         .payload = payload.text,
         .number = 0} {}

FileLockToken *FileLock_Lock(const char *path, bool readOnly, uint32_t msecMaxWait, int *err,
                             MsgList **msgList) {
  return FileLock_LockCancellable(path, readOnly, msecMaxWait, -1, err, msgList);
}

FileLockToken *FileLock_LockCancellable(const char *path, bool readOnly, uint32_t msecMaxWait,
                                        int cancelFd, int *err, MsgList **msgList) {
  const HeapStr normalized = NormalizePath(path);
  if (normalized == nullptr) return Refuse(EINVAL, err, msgList);
  *err = 0;
  FileLockToken *token = nullptr;
  const int error = FileLockIntrinsic(normalized.get(), !readOnly, msecMaxWait, cancelFd, &token);
  return error == 0 ? token : Refuse(error, err, msgList);
}

bool FileLock_Unlock(FileLockToken *token, int *err, MsgList **msgList) {
  if (memcmp(token->tag, kTag, sizeof kTag) != 0) Fatal_Verify("lib/file/fileLock", 118);
  const HeapPtr<FileLockToken> owner(token);
  *err = Leave(*token);
  if (*err != 0) Refuse(*err, err, msgList);
  return *err == 0;
}
