// fileLockScan.cpp -- looking through a lock directory, and removing what belongs to nobody.
//
// Invariants:
//   1. What is removed has the name of an entry, or is in a directory of the lock's own name: nobody
//      who can put a link there may have other directories emptied by root.
//   2. A member is removed only if this machine knows its process to be dead, or if it is no record.
//   3. Everything may vanish at any time; that is never an error.
// Tests: tests/unit/fileLock_test.cpp

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
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

constexpr size_t kNumberDigits = 5;

// What NFS clients call a file that was removed while it was open.  It goes by itself, and to remove it
// makes another one.
constexpr char kSillyName[] = ".nfs";

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// ---- removal -----------------------------------------------------------------------------------

// Errno-style.  Something else may be in the place of an entry, or everybody would meet it for ever.
int RemoveEntry(const char *path, char letter) {
  const bool isDirectory = letter == kFileLockChoosing;
  const int error = (isDirectory ? rmdir(path) : unlink(path)) == 0 ? 0 : errno;
  switch (error) {
    case ENOTDIR:
      return unlink(path) == 0 ? 0 : errno;
    case EISDIR:
    case EPERM:  // what POSIX has for unlink of a directory
      return rmdir(path) == 0 ? 0 : error;
    default:
      return error;
  }
}

// Errno-style.
int RemoveForeign(const char *lockDir, const char *name) {
  const Fd dir(open(lockDir, kFileOpenDirectory | O_NOFOLLOW));
  return dir && unlinkat(dir.Get(), name, 0) == 0 ? 0 : errno;
}

// ---- members -----------------------------------------------------------------------------------

// Whether the payload of a record that this process wrote is one of this lock directory.  It is a hash
// of the path that the process used then: the full one or, for a bare name, "./name".
bool IsOfDirectory(const char *payload, const char *lockDir) {
  const char *const base = strrchr(lockDir, '/') + 1;
  const HeapStr bare(Str_SafeAsprintf(nullptr, "./%s", base));
  const HeapStr full(File_FullPath(lockDir));
  return strcmp(payload, FileLockMakePayload(bare.get()).text) == 0 ||
         (full != nullptr && strcmp(payload, FileLockMakePayload(full.get()).text) == 0);
}

// Why the member is nobody's, as a new string; null when it is somebody's.
HeapStr ReasonToDiscard(const FileLockMember &other, const FileLockRequest &request) {
  const FileLockMember &me = request.me;
  if (!OldMachineIDMatch(me.machineID, other.machineID)) return nullptr;
  if (!FileLockValidExecutionID(other.executionID)) {
    const HeapStr executionID = FileLockPrintable(other.executionID);
    return HeapStr(Str_SafeAsprintf(nullptr, "invalid executionID %s.", executionID.get()));
  }
  const bool own = strcmp(other.executionID, me.executionID) == 0;
  if (own && other.payload != nullptr && strcmp(other.payload, me.payload) != 0 &&
      !IsOfDirectory(other.payload, request.Dir())) {
    return Heap_SafeStrdup("lock file has been moved.");
  }
  return nullptr;
}

int ScanMember(const char *name, const FileLockRequest &request, FileLockScanFn callback,
               void *context) {
  FileLockRecord record;
  FileLockMember other;
  const int error = FileLockMemberValues(request.Dir(), name, &record, &other);
  if (error != 0) return error == ENOENT ? 0 : error;
  const HeapStr reason = ReasonToDiscard(other, request);
  if (reason == nullptr) return callback(other, request, context);
  Log("FILE: %s discarding %s from %s': %s\n", "FileLockScanner", FileLockPrintable(name).get(),
      request.Dir(), reason.get());
  return FileLockRemoveLockingFile(request.Dir(), name);
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
  const int error =
      FileLockIsEntryName(name) ? RemoveEntry(path.get(), *name) : RemoveForeign(lockDir, name);
  if (error == 0 || error == ENOENT) return 0;
  Log("FILE: %s of '%s' failed: %s\n", "FileLockRemoveLockingFile",
      FileLockPrintablePath(lockDir, name).get(), Err_ErrnoToString(error));
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
    if (FileLockIsEntryName(name) || std::string_view(name).starts_with(kSillyName)) continue;
    Log("FILE: %s discarding %s from %s'; invalid file name.\n", "FileLockScanner",
        FileLockPrintable(name).get(), lockDir);
    const int error = FileLockRemoveLockingFile(lockDir, name);
    // These are of a lock directory that is a link; other names that stay are in nobody's way.
    if (error == ENOTDIR || error == ELOOP) return error;
  }
  return 0;
}

int FileLockScanner(const FileNames &names, const FileLockRequest &request, FileLockScanFn callback,
                    void *context) {
  for (const char *const name : names) {
    if (*name != kFileLockMember || !FileLockIsEntryName(name)) continue;
    if (strcmp(name, request.me.memberName) == 0) continue;
    const int error = ScanMember(name, request, callback, context);
    if (error != 0) return error;
  }
  return 0;
}
