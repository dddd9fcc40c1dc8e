// fileLockWait.cpp -- waiting for one's turn: for those that choose a number, then for those that have
// a lower one.
//
// Invariants:
//   1. A participant that was choosing when our member file was in place may not have seen it, and may
//      get a lower number.  It is in our first listing, and is waited for.  Those that are not have
//      begun later, see our number, and get a higher one: so the wait has an end however many come.
//   2. The members come from a listing that was begun when the last of those choosers had chosen:
//      their member files are in it, or they have left.
//   3. A listing shows one moment if it is short enough to be read in one piece.  In a longer one, an
//      entry that changes its name from E to M meanwhile may be missed under both names.  One more
//      listing has it: the renames of all that count are over by then.
//   4. A chooser that takes too long is dead.  If it is not, it finds that its entry directory has gone,
//      and leaves; nobody else touches its member file, which may be another participant's.
//   5. The caller's time, and its wish to give up, end every wait.
// Tests: tests/unit/fileLock_test.cpp, tests/system/lockCrowd_test.cpp

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <string_view>

#include "lib/file/fileInt.h"
#include "lib/file/lock/fileLockInt.h"
#include "lib/public/log.h"
#include "lib/public/monotonicClock.h"
#include "lib/public/str.h"

namespace {

constexpr uint32_t kStepMs = 200;
constexpr uint32_t kMaxChoosingMs = 8001;

// By the times of the file server, which may count in whole seconds.
constexpr int64_t kMaxChoosingAgeSeconds = 10;

// No system needs more than one read for so few names.
constexpr int kOnePiece = 16;

HeapStr PathOf(const FileLockRequest &request, const char *name) {
  return HeapStr(Str_SafeAsprintf(nullptr, "%s/%s", request.Dir(), name));
}

// ---- those that choose -------------------------------------------------------------------------

// Errno-style: the entry file first, since the number is the chooser's while its directory exists.
int Discard(const char *lockDir, const char *entryDir) {
  Log("FILE: %s discarding %s data from '%s'.\n", "FileLockScanner",
      FileLockPrintable(entryDir).get(), lockDir);
  const HeapStr entryFile = Heap_SafeStrdup(entryDir);
  *entryFile = kFileLockEntry;
  const int error = FileLockRemoveLockingFile(lockDir, entryFile.get());
  return error != 0 ? error : FileLockRemoveLockingFile(lockDir, entryDir);
}

struct Chooser {
  char name[sizeof(dirent::d_name)];
  bool there;  // as far as we know
};

// The entry directories of a first listing that are still waited for.
class Choosers {
  HeapArray<Chooser> list_;  // sorted by name
  size_t count_ = 0;

  std::span<Chooser> All() const { return {list_.get(), count_}; }
  // Forgets those that are not there.
  void Compact();

 public:
  bool Any() const { return count_ > 0; }
  // Errno-style.
  [[nodiscard]] int Begin(const FileNames &names);
  // Those that have left stay away, even if somebody else comes back under their name.
  void KeepOf(const FileNames &names);
  // Errno-style.
  [[nodiscard]] int DiscardAll(const char *lockDir);
  // Errno-style: discards those that were too old already when our member file was written.  A caller
  // with little time cannot wait for them to grow old.
  [[nodiscard]] int DiscardOld(const FileLockRequest &request);
};

int Choosers::Begin(const FileNames &names) {
  list_ = Heap_Array<Chooser>(static_cast<size_t>(names.Count()));
  if (list_ == nullptr) return ENOMEM;
  for (const char *const name : names) {
    if (*name != kFileLockChoosing || !FileLockIsEntryName(name)) continue;
    Chooser &chooser = list_[count_++];
    Str_Strcpy(chooser.name, name, sizeof chooser.name);
    chooser.there = true;
  }
  std::ranges::sort(All(), {}, [](const Chooser &c) { return std::string_view(c.name); });
  return 0;
}

void Choosers::Compact() {
  const std::span<Chooser> all = All();
  const auto end =
      std::remove_if(all.begin(), all.end(), [](const Chooser &c) { return !c.there; });
  count_ = static_cast<size_t>(end - all.begin());
}

void Choosers::KeepOf(const FileNames &names) {
  for (Chooser &chooser : All()) chooser.there = false;
  for (const std::string_view name : names) {
    const auto at = std::ranges::lower_bound(
        All(), name, {}, [](const Chooser &c) { return std::string_view(c.name); });
    if (at != All().end() && name == at->name) at->there = true;
  }
  Compact();
}

int Choosers::DiscardAll(const char *lockDir) {
  for (const Chooser &chooser : All()) {
    const int error = Discard(lockDir, chooser.name);
    if (error != 0) return error;
  }
  count_ = 0;
  return 0;
}

int Choosers::DiscardOld(const FileLockRequest &request) {
  FileData own;
  int error = FileAttributes(PathOf(request, request.me.memberName).get(), &own);
  for (Chooser &chooser : All()) {
    FileData data;
    if (error != 0) return error;
    if (FileAttributes(PathOf(request, chooser.name).get(), &data) != 0) continue;
    if (own.fileModificationTime - data.fileModificationTime < kMaxChoosingAgeSeconds) continue;
    error = Discard(request.Dir(), chooser.name);
    chooser.there = false;
  }
  Compact();
  return error;
}

// Errno-style.  Even a caller that does not wait gives them one step, or it would fail again and again
// where nobody holds the lock; most need much less.  And nobody gives up before the look after it.
int PauseForChoosers(const FileLockRequest &request, uint32_t waitedMs) {
  if (waitedMs > 0) return FileLockPause(request, kStepMs, kStepMs);
  int error = 0;
  if (request.msecMaxWait == FILELOCK_TRYLOCK_WAIT) {
    FileSleeper(kStepMs, kStepMs, request.cancelFd, &error);
  } else {
    error = FileLockPause(request, kStepMs, kStepMs);
  }
  return error == EAGAIN ? 0 : error;
}

// Errno-style: waits for those that choose, and lists what is there then.
int AwaitChoosers(const FileLockRequest &request, FileNames *names) {
  Choosers awaited;
  int error = FileLockScanDirectory(request.Dir(), names);
  if (error == 0) error = awaited.Begin(*names);
  for (uint32_t waitedMs = 0; error == 0 && awaited.Any(); waitedMs += kStepMs) {
    if (waitedMs == kStepMs) error = awaited.DiscardOld(request);
    if (waitedMs >= kMaxChoosingMs) {
      error = awaited.DiscardAll(request.Dir());
    } else if (error == 0 && awaited.Any()) {
      error = PauseForChoosers(request, waitedMs);
    }
    // Also after discarding: some may have chosen at the last moment.
    if (error == 0) error = FileLockScanDirectory(request.Dir(), names);
    if (error == 0) awaited.KeepOf(*names);
  }
  if (error != 0 || names->Count() <= kOnePiece) return error;
  return FileLockScanDirectory(request.Dir(), names);
}

// ---- those that go first -----------------------------------------------------------------------

// How long to sleep next after having waited for `elapsedMs`.
uint32_t StepMs(uint64_t elapsedMs) {
  if (elapsedMs <= 2000) return 100;
  return elapsedMs < 20000 ? static_cast<uint32_t>(elapsedMs / 10) : 2000;
}

bool GoesFirst(const FileLockMember &other, const FileLockRequest &request) {
  const FileLockMember &me = request.me;
  if (!request.ConflictsWith(other)) return false;
  if (other.number != me.number) return other.number < me.number;
  return strcmp(other.memberName, me.memberName) < 0;
}

struct Ahead {
  uint32_t number;
  char name[sizeof(dirent::d_name)];
};

// Those that go first, in their order: when the last of them leaves, all others have been looked at.
class Queue {
  HeapArray<Ahead> list_;
  size_t count_ = 0;

 public:
  std::span<const Ahead> All() const { return {list_.get(), count_}; }
  // Errno-style.
  [[nodiscard]] int Begin(const FileNames &names, const FileLockRequest &request);
};

int Queue::Begin(const FileNames &names, const FileLockRequest &request) {
  list_ = Heap_Array<Ahead>(static_cast<size_t>(names.Count()));
  if (list_ == nullptr) return ENOMEM;
  const auto add = [](const FileLockMember &other, const FileLockRequest &asking, void *context) {
    if (!GoesFirst(other, asking)) return 0;
    auto *const queue = static_cast<Queue *>(context);
    Ahead &ahead = queue->list_[queue->count_++];
    ahead.number = other.number;
    Str_Strcpy(ahead.name, other.memberName, sizeof ahead.name);
    return 0;
  };
  const int error = FileLockScanner(names, request, add, this);
  std::ranges::sort(std::span(list_.get(), count_), {}, &Ahead::number);
  return error;
}

// Errno-style: whether `other` still is in the queue; ENOENT when it has left.  Its number may have
// been drawn again since, by somebody who comes after us and waits for us.
int StillThere(const FileLockRequest &request, const FileLockMember &other) {
  const int error = FileAttributes(PathOf(request, other.memberName).get(), nullptr);
  if (error != 0) return error == ESTALE ? ENOENT : error;
  FileLockRecord record;
  FileLockMember now;
  const int unread = FileLockMemberValues(request.Dir(), other.memberName, &record, &now);
  if (unread != 0) return unread == ENOENT ? ENOENT : 0;  // the next look may show more
  const bool same = now.number == other.number && strcmp(now.executionID, other.executionID) == 0 &&
                    strcmp(now.machineID, other.machineID) == 0;
  return same ? 0 : ENOENT;
}

int ReportTimeout(const FileLockRequest &request, const FileLockMember &other, bool local) {
  if (request.msecMaxWait == FILELOCK_TRYLOCK_WAIT) return EAGAIN;
  if (local) {
    Log("FILE: %s timeout on '%s' due to a local process '%s'\n", "FileLockWaitForPossession",
        request.path, FileLockPrintable(other.executionID).get());
  } else {
    Log("FILE: %s timeout on '%s' due to another machine '%s'\n", "FileLockWaitForPossession",
        request.path, FileLockPrintable(other.machineID).get());
  }
  return EAGAIN;
}

// Errno-style: waits until `other` has left.
int FileLockWaitForPossession(const FileLockMember &other, const FileLockRequest &request) {
  const bool local = OldMachineIDMatch(request.me.machineID, other.machineID);
  for (;;) {
    const auto elapsedMs = static_cast<uint64_t>(MonotonicClock_Ms() - request.startMs);
    int error = FileLockPause(request, StepMs(elapsedMs) / 2, StepMs(elapsedMs));
    if (error == EAGAIN) return ReportTimeout(request, other, local);
    if (error == 0) error = StillThere(request, other);
    if (error == ENOENT) return 0;
    if (error != 0) return error;
    if (!local || FileLockValidExecutionID(other.executionID)) continue;
    Log("FILE: %s discarding file '%s'; invalid executionID.\n", "FileLockWaitForPossession",
        FileLockPrintablePath(request.Dir(), other.memberName).get());
    return FileLockRemoveLockingFile(request.Dir(), other.memberName);
  }
}

// Errno-style: waits for all that go first.
int AwaitQueue(const FileLockRequest &request, const FileNames &names) {
  Queue queue;
  int error = queue.Begin(names, request);
  for (const Ahead &ahead : queue.All()) {
    if (error != 0) return error;
    FileLockRecord record;
    FileLockMember other;
    error = FileLockMemberValues(request.Dir(), ahead.name, &record, &other);
    // It may have left, and somebody else have drawn its number.
    if (error == 0 && GoesFirst(other, request)) error = FileLockWaitForPossession(other, request);
    if (error == ENOENT) error = 0;
  }
  return error;
}

}  // namespace

int FileLockAwaitTurn(const FileLockRequest &request, const FileLockPaths &paths) {
  const char *const memberFile = paths.memberFile.get();
  FileNames names;
  int error = AwaitChoosers(request, &names);
  if (error == 0) error = AwaitQueue(request, names);
  if (error == 0) {
    error = FileAttributes(memberFile, nullptr);
    // A person has removed the directory, so that others do not see us; what has our name by now is
    // not ours.
    if (error == ENOENT) return error;
  }
  if (error != 0) FileLockWithdraw(request, memberFile, nullptr);
  return error;
}
