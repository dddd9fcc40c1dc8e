// fileLockScan.cpp -- looking through a lock directory, and removing what belongs to nobody.
//
// Holds:  1. Who has chosen no number yet may still get one that is lower than ours, and so go
//            first.  So before the members count, there was a moment without entry directories
//            after our own member file was in place: whoever made one since sees our number, and
//            gets a higher one.
//         2. A listing is taken to show one moment if it is short enough to be read in one piece.
//            In a longer one, an entry that changes its name from E to M meanwhile may be missed
//            under both names, and its entry directory may be gone by then.  So the members are
//            taken from a second listing, which has all of those that left the first one's sight.
//         3. What is removed has the name of an entry, or is in a directory of the lock's own name: who
//            can put a link there must not have other directories emptied by root.
//         4. Everything may vanish at any time; that is never an error.

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>

#include "lib/file/fileInt.h"
#include "lib/file/lock/fileLockInt.h"
#include "lib/public/err.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fd.h"
#include "lib/public/log.h"
#include "lib/public/str.h"

namespace {

constexpr uint32_t kStepMs = 200;
constexpr uint32_t kMaxChoosingMs = 8001;  // who chooses for that long is dead

// No system needs more than one read for so few names.
constexpr int kOnePiece = 16;

constexpr size_t kNumberDigits = 5;

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// ---- who is choosing a number ------------------------------------------------------------------

struct Chooser {
  char name[sizeof(dirent::d_name)];
  uint32_t waitedMs;
};

// The entry directories of the last listing, with the time that they have been waited for.
class Choosers {
  HeapArray<Chooser> list_;
  size_t count_ = 0;

  uint32_t WaitedFor(const char *name) const;
  [[nodiscard]] int WaitOrDiscard(const char *lockDir, const Chooser &chooser);

 public:
  // Errno-style: goes on to the choosers among `names`, and discards who took too long.
  [[nodiscard]] int Update(const char *lockDir, const FileNames &names, bool *any);
};

uint32_t Choosers::WaitedFor(const char *name) const {
  for (const Chooser &chooser : std::span(list_.get(), count_)) {
    if (strcmp(chooser.name, name) == 0) return chooser.waitedMs;
  }
  return 0;
}

// Errno-style: removes the entry directory; also what stands in the place of one, or everybody would
// wait for it again and again.
int RemoveEntryDirectory(const char *lockDir, const char *name) {
  const HeapStr path(Str_SafeAsprintf(nullptr, "%s/%s", lockDir, name));
  if (File_DeleteEmptyDirectory(path.get()) || errno == ENOENT) return 0;
  return errno == ENOTDIR ? FileLockRemoveLockingFile(lockDir, name) : errno;
}

int Discard(const char *lockDir, const Chooser &chooser) {
  Log("FILE: %s discarding %s data from '%s'.\n", "FileLockScanner", chooser.name, lockDir);
  Chooser file = chooser;
  for (const char letter : {kFileLockMember, kFileLockEntry}) {
    file.name[0] = letter;
    const int error = FileLockRemoveLockingFile(lockDir, file.name);
    if (error != 0) return error;
  }
  return RemoveEntryDirectory(lockDir, chooser.name);
}

int Choosers::Update(const char *lockDir, const FileNames &names, bool *any) {
  HeapArray<Chooser> now = Heap_Array<Chooser>(static_cast<size_t>(names.Count()));
  if (now == nullptr) return ENOMEM;
  size_t count = 0;
  *any = false;
  for (const char *const name : names) {
    if (*name != kFileLockChoosing || !FileLockIsEntryName(name)) continue;
    *any = true;
    Chooser chooser{};
    Str_Strcpy(chooser.name, name, sizeof chooser.name);
    chooser.waitedMs = WaitedFor(name);
    if (chooser.waitedMs < kMaxChoosingMs) {
      chooser.waitedMs += kStepMs;
      now[count++] = chooser;
    } else {
      const int error = Discard(lockDir, chooser);
      if (error != 0) return error;
    }
  }
  list_ = std::move(now);
  count_ = count;
  return 0;
}

// ---- listings ----------------------------------------------------------------------------------

// Errno-style: a listing from after a moment when nobody was choosing.
int ListUndisturbed(const char *lockDir, int cancelFd, FileNames *names) {
  Choosers choosers;
  for (bool any = true; any;) {
    int error = FileLockScanDirectory(lockDir, names);
    if (error == 0) error = choosers.Update(lockDir, *names, &any);
    if (error == 0 && any) FileSleeper(kStepMs, kStepMs, cancelFd, &error);
    if (error != 0) return error;
  }
  return names->Count() <= kOnePiece ? 0 : FileLockScanDirectory(lockDir, names);
}

// ---- members -----------------------------------------------------------------------------------

// Whether a record that this process wrote is one of this lock directory.  What the payload was made
// of depends on how the file was called then: by a bare name, perhaps.
bool IsOfDirectory(const char *payload, const char *lockDir) {
  const HeapStr whole(File_FullPath(lockDir));
  const char *const base = strrchr(lockDir, '/') == nullptr ? lockDir : strrchr(lockDir, '/') + 1;
  const HeapStr bare(Str_SafeAsprintf(nullptr, "./%s", base));
  for (const char *const path :
       {lockDir, static_cast<const char *>(whole.get()), static_cast<const char *>(bare.get())}) {
    if (path != nullptr && strcmp(payload, FileLockMakePayload(path).text) == 0) return true;
  }
  return false;
}

// Why the member is nobody's, as a new string; null when it is somebody's.
HeapStr ReasonToDiscard(const char *lockDir, const FileLockMember &other,
                        const FileLockMember &me) {
  if (!OldMachineIDMatch(me.machineID, other.machineID)) return nullptr;
  if (!FileLockValidExecutionID(other.executionID)) {
    return HeapStr(Str_SafeAsprintf(nullptr, "invalid executionID %s.", other.executionID));
  }
  const bool own = strcmp(other.executionID, me.executionID) == 0;
  if (own && other.payload != nullptr && strcmp(other.payload, me.payload) != 0 &&
      !IsOfDirectory(other.payload, lockDir)) {
    return Heap_SafeStrdup("lock file has been moved.");
  }
  return nullptr;
}

int ScanMember(const char *lockDir, const char *name, FileLockScanFn callback,
               FileLockRequest *request) {
  if (strcmp(name, request->me.memberName) == 0) {
    return callback(lockDir, name, request->me, request);
  }
  FileLockRecord record;
  FileLockMember other;
  const int error = FileLockMemberValues(lockDir, name, &record, &other);
  if (error != 0) return error == ENOENT ? 0 : error;
  const HeapStr reason = ReasonToDiscard(lockDir, other, request->me);
  if (reason == nullptr) return callback(lockDir, name, other, request);
  Log("FILE: %s discarding %s from %s': %s\n", "FileLockScanner", name, lockDir, reason.get());
  return FileLockRemoveLockingFile(lockDir, name);
}

// Errno-style.
int RemoveName(const char *lockDir, const char *name, const char *path) {
  if (FileLockIsEntryName(name)) return FileDeletePath(path, false);
  const Fd dir(open(lockDir, kFileOpenDirectory | O_NOFOLLOW));
  return dir && unlinkat(dir.Get(), name, 0) == 0 ? 0 : errno;
}

}  // namespace

bool FileLockIsEntryName(const char *name) {
  const std::string_view text(name);
  return text.size() > kNumberDigits && text.ends_with(kFileLockSuffix) &&
         std::string_view("MDE").find(text[0]) != std::string_view::npos &&
         std::ranges::all_of(text.substr(1, kNumberDigits), IsDigit);
}

int FileLockRemoveLockingFile(const char *lockDir, const char *name) {
  const HeapStr path(Str_SafeAsprintf(nullptr, "%s/%s", lockDir, name));
  const int error = RemoveName(lockDir, name, path.get());
  if (error == 0 || error == ENOENT) return 0;
  Log("FILE: %s of '%s' failed: %s\n", "FileLockRemoveLockingFile", path.get(),
      Err_ErrnoToString(error));
  return error;
}

int FileLockScanDirectory(const char *lockDir, FileNames *names) {
  if (!names->List(lockDir)) {
    const ErrnoKeeper keeper;
    Log("FILE: %s: Could not read the directory '%s': %d\n", "FileLockScanDirectory", lockDir,
        keeper.Get());
    return keeper.Get();
  }
  for (const char *const name : *names) {
    if (FileLockIsEntryName(name)) continue;
    Log("FILE: %s discarding %s from %s'; invalid file name.\n", "FileLockScanner", name, lockDir);
    const int error = FileLockRemoveLockingFile(lockDir, name);
    if (error != 0) return error;
  }
  return 0;
}

int FileLockScanner(const char *lockDir, FileLockScanFn callback, FileLockRequest *request,
                    bool cleanUp) {
  FileNames names;
  int error = cleanUp ? ListUndisturbed(lockDir, request->cancelFd, &names)
                      : FileLockScanDirectory(lockDir, &names);
  for (int i = 0; error == 0 && i < names.Count(); i++) {
    const char *const name = names[i];
    if (*name != kFileLockMember || !FileLockIsEntryName(name)) continue;
    error = ScanMember(lockDir, name, callback, request);
  }
  return error;
}
