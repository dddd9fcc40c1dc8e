// fileLockIntrinsic.cpp -- the lock of a normalised path: which kind, the token, the release.

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "fatal.h"
#include "fileIO.h"
#include "lib/file/fileInt.h"
#include "lib/file/fileLockInt.h"
#include "log.h"
#include "str.h"

namespace {

constexpr char kTag[] = {'F', 'L', 'C', 'K'};
constexpr int kNativeFileMode = 0600;

}  // namespace

struct FileLockToken {
  char tag[sizeof kTag];  // what the caller gives back is one of ours
  bool portable;
  HeapStr path;
  HeapStr memberFile;     // of a portable lock; null: granted without an entry
  FileIODescriptor file;  // of a native lock
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

TokenOwner NewToken(const char *path, bool portable) {
  TokenOwner token(new (Heap_SafeMalloc(sizeof(FileLockToken)))
                       FileLockToken{{}, portable, Heap_SafeStrdup(path), nullptr, {}});
  memcpy(token->tag, kTag, sizeof kTag);
  FileIO_Invalidate(&token->file);
  return token;
}

HeapStr LockDirOf(const char *path) {
  return HeapStr(Str_SafeAsprintf(nullptr, "%s%s", path, kFileLockSuffix));
}

// The lock of the host, on the file itself, which is created when missing.
FileLockToken *LockNative(const char *path, bool exclusive, int *err) {
  TokenOwner token = NewToken(path, false);
  const uint32_t access = exclusive ? FILEIO_ACCESS_WRITE : FILEIO_ACCESS_READ;
  if (FileIOCreate(&token->file, path, access | FILEIO_FLAG_LOCK_MANDATORY, FILEIO_OPEN_CREATE,
                   kNativeFileMode) != FILEIO_SUCCESS) {
    *err = errno;
    return nullptr;
  }
  return token.release();
}

FileLockToken *LockPortable(const char *path, bool exclusive, uint32_t msecMaxWait, int *err) {
  const HeapStr lockDir = LockDirOf(path);
  const pid_t pid = getpid();
  const uint64_t startTime = FileLockOwnStartTime(pid);
  const FileLockExecutionID executionID = FileLockMakeExecutionID(pid, startTime);
  const FileLockPayload payload = FileLockMakePayload(lockDir.get());
  FileLockRequest request = {.path = path,
                             .lockDir = lockDir.get(),
                             .msecMaxWait = msecMaxWait,
                             .startMs = FileLockNowMs(),
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

// Errno-style.
int CloseNative(FileLockToken *token) {
  return FileIO_CloseAndUnlink(&token->file) == FILEIO_SUCCESS ? 0 : errno;
}

}  // namespace

FileLockToken *FileLockIntrinsic(const char *path, bool exclusive, uint32_t msecMaxWait, int *err) {
  return FileLockNativeIsDefault() ? LockNative(path, exclusive, err)
                                   : LockPortable(path, exclusive, msecMaxWait, err);
}

FileLockToken *FileLockIntrinsicPortable(FileLockRequest *request, int *err) {
  TokenOwner token = NewToken(request->path, true);
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
  return token->portable ? LeaveQueue(*token) : CloseNative(token);
}
