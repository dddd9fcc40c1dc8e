// fileLockIntrinsic.cpp -- the lock of a normalised path: the token, the release.

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "lib/file/fileInt.h"
#include "lib/file/lock/fileLockInt.h"
#include "lib/public/fatal.h"
#include "lib/public/log.h"
#include "lib/public/monotonicClock.h"
#include "lib/public/str.h"

namespace {

constexpr char kTag[] = {'F', 'L', 'C', 'K'};

}  // namespace

struct FileLockToken {
  char tag[sizeof kTag];  // what the caller gives back is one of ours
  HeapStr path;
  HeapStr memberFile;  // null: granted without an entry
};

namespace {

struct TokenFreer {
  void operator()(FileLockToken *token) const noexcept {
    memset(token->tag, 0, sizeof token->tag);
    token->~FileLockToken();
    HeapFreer()(token);
  }
};
using TokenOwner = std::unique_ptr<FileLockToken, TokenFreer>;

TokenOwner NewToken(const char *path) {
  TokenOwner token(new (Heap_SafeMalloc(sizeof(FileLockToken)))
                       FileLockToken{{}, Heap_SafeStrdup(path), nullptr});
  memcpy(token->tag, kTag, sizeof kTag);
  return token;
}

HeapStr LockDirOf(const char *path) {
  return HeapStr(Str_SafeAsprintf(nullptr, "%s%s", path, kFileLockSuffix));
}

FileLockToken *LockPortable(const char *path, bool exclusive, uint32_t msecMaxWait, int cancelFd,
                            int *err) {
  const HeapStr lockDir = LockDirOf(path);
  const pid_t pid = getpid();
  const uint64_t startTime = FileLockOwnStartTime(pid);
  const FileLockExecutionID executionID = FileLockMakeExecutionID(pid, startTime);
  const FileLockPayload payload = FileLockMakePayload(lockDir.get());
  FileLockRequest request = {.path = path,
                             .lockDir = lockDir.get(),
                             .msecMaxWait = msecMaxWait,
                             .cancelFd = cancelFd,
                             .startMs = MonotonicClock_Ms(),
                             .startTime = startTime,
                             .me = {.machineID = FileLockMachineID(),
                                    .executionID = executionID.text,
                                    .lockType = exclusive ? kFileLockExclusive : kFileLockShared,
                                    .memberName = "",
                                    .payload = payload.text,
                                    .number = 0}};
  return FileLockIntrinsicPortable(&request, err);
}

// Errno-style: leaves the queue.
int LeaveQueue(const FileLockToken &token) {
  if (token.memberFile == nullptr) return 0;
  const int error = FileDeletePath(token.memberFile.get(), false);
  // Fails while others are inside.
  File_DeleteEmptyDirectory(LockDirOf(token.path.get()).get());
  return error;
}

}  // namespace

FileLockToken *FileLockIntrinsic(const char *path, bool exclusive, uint32_t msecMaxWait,
                                 int cancelFd, int *err) {
  if (!FileLockNativeIsDefault()) return LockPortable(path, exclusive, msecMaxWait, cancelFd, err);
  // As an open that asks for a native lock: neither host has any.
  *err = ENOTSUP;
  return nullptr;
}

FileLockToken *FileLockIntrinsicPortable(FileLockRequest *request, int *err) {
  TokenOwner token = NewToken(request->path);
  FileLockPlaces places;
  int error = FileLockCreateEntryDirectory(*request, &places);
  if ((error == EROFS || error == EACCES) && !request->IsExclusive()) {
    Log("FILE: %s implicit %s lock succeeded on '%s'.\n", "FileLockIntrinsicPortable",
        kFileLockShared, request->path);
    return token.release();
  }
  if (error == 0) {
    request->me.memberName = places.MemberName();
    error = FileLockCreateMemberFile(request, places);
  }
  if (error != 0) {
    *err = error == EAGAIN ? 0 : error;
    return nullptr;
  }
  token->memberFile = std::move(places.memberFile);
  return token.release();
}

int FileLockRelease(FileLockToken *token) {
  if (memcmp(token->tag, kTag, sizeof kTag) != 0) Fatal_Verify("lib/file/fileLock", 118);
  const TokenOwner owner(token);
  return LeaveQueue(*token);
}
