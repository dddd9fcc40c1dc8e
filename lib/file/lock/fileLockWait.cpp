// fileLockWait.cpp -- waiting for somebody who goes first.

#include <cerrno>
#include <cstring>

#include "lib/file/fileInt.h"
#include "lib/file/lock/fileLockInt.h"
#include "lib/public/log.h"
#include "lib/public/monotonicClock.h"
#include "lib/public/str.h"

namespace {

// How long to sleep next after having waited for `elapsedMs`.
uint32_t StepMs(uint64_t elapsedMs) {
  if (elapsedMs <= 2000) return 100;
  return elapsedMs < 20000 ? static_cast<uint32_t>(elapsedMs / 10) : 2000;
}

bool HasPriority(const FileLockMember &other, const FileLockMember &me) {
  if (other.number != me.number) return other.number < me.number;
  return strcmp(other.memberName, me.memberName) < 0;
}

// Errno-style: whether `other` still is in the queue; ENOENT when it has left.  Its number may have
// been drawn again since, by somebody who comes after us and waits for us.
int StillThere(const char *lockDir, const char *name, const char *path,
               const FileLockMember &other) {
  const int error = FileAttributes(path, nullptr);
  if (error != 0) return error;
  FileLockRecord record;
  FileLockMember now;
  if (FileLockMemberValues(lockDir, name, &record, &now) != 0) return 0;  // the next look tells
  const bool same = now.number == other.number && strcmp(now.executionID, other.executionID) == 0 &&
                    strcmp(now.machineID, other.machineID) == 0;
  return same ? 0 : ENOENT;
}

// Errno-style: sleeps some of the time that is left; EAGAIN when there is none.
int SleepBit(const FileLockRequest &request) {
  if (request.msecMaxWait == FILELOCK_TRYLOCK_WAIT) return EAGAIN;
  const auto elapsedMs = static_cast<uint64_t>(MonotonicClock_Ms() - request.startMs);
  if (request.msecMaxWait != FILELOCK_INFINITE_WAIT && elapsedMs >= request.msecMaxWait) {
    return EAGAIN;
  }
  const uint32_t stepMs = StepMs(elapsedMs);
  int error;
  FileSleeper(stepMs / 2, stepMs, request.cancelFd, &error);
  return error;
}

int GiveUp(const FileLockRequest &request, const FileLockMember &other, bool local) {
  if (request.msecMaxWait == FILELOCK_TRYLOCK_WAIT) return EAGAIN;
  if (local) {
    Log("FILE: %s timeout on '%s' due to a local process '%s'\n", "FileLockWaitForPossession",
        request.path, other.executionID);
  } else {
    Log("FILE: %s timeout on '%s' due to another machine '%s'\n", "FileLockWaitForPossession",
        request.path, other.machineID);
  }
  return EAGAIN;
}

}  // namespace

int FileLockWaitForPossession(const char *lockDir, const char *name, const FileLockMember &other,
                              FileLockRequest *request) {
  const FileLockMember &me = request->me;
  if (!HasPriority(other, me)) return 0;
  if (!request->IsExclusive() && strcmp(other.lockType, kFileLockShared) == 0) return 0;
  const bool local = OldMachineIDMatch(me.machineID, other.machineID);
  const HeapStr path(Str_SafeAsprintf(nullptr, "%s/%s", lockDir, name));
  int error;
  while ((error = SleepBit(*request)) == 0) {
    error = StillThere(lockDir, name, path.get(), other);
    if (error == ENOENT) return 0;
    if (error != 0) return error;
    if (local && !FileLockValidExecutionID(other.executionID)) {
      Log("FILE: %s discarding file '%s'; invalid executionID.\n", "FileLockWaitForPossession",
          path.get());
      return FileLockRemoveLockingFile(lockDir, name);
    }
  }
  return error == EAGAIN ? GiveUp(*request, other, local) : error;
}
