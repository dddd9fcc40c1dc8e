// fileLockEntry.cpp -- getting into the queue: the entry directory, the record, the member file.
//
// Invariants:
//   1. A number (that of the names) belongs to the participant that made the entry directory with
//      it, while that exists; afterwards to the one that has the member file.
//   2. The lock directory goes as soon as it is empty; so any step may find it gone, and then begins
//      again.
//   3. The directories are for everybody, whatever the umask, from their first moment: a reader that
//      is refused one would take it for read-only media, and a shared lock for granted.  So the
//      umask is 0 while they are made, and a mode set afterwards would not do.  The umask is the
//      process's: a lock keeps two threads from restoring each other's 0.
// Tests: tests/unit/fileLock_test.cpp

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "lib/file/fileInt.h"
#include "lib/file/lock/fileLockInt.h"
#include "lib/file/raw/fileIOInt.h"
#include "lib/public/err.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fd.h"
#include "lib/public/fileIO.h"
#include "lib/public/log.h"
#include "lib/public/monotonicClock.h"
#include "lib/public/mxUser.h"
#include "lib/public/str.h"

namespace {

constexpr int64_t kMaxEntryMs = 8000;

// So many attempts come without a pause: each but the first few means that the directory is very full.
constexpr int kQuickAttempts = 16;

constexpr mode_t kDirectoryMode = 0777;
constexpr mode_t kEntryFileMode = 0644;

constexpr MX_Rank kUmaskRank = 0xFF000000;
constinit std::atomic<MXUserExclLock *> umaskLock{nullptr};

// While it lives, the umask is 0.
class ModesAsAsked {
  MXUserExclLock *lock_;
  mode_t before_;

 public:
  ModesAsAsked()
      : lock_(MXUser_CreateSingletonExclLock(&umaskLock, "fileLockUmaskLock", kUmaskRank)) {
    MXUser_AcquireExclLock(lock_);
    before_ = umask(0);
  }
  ModesAsAsked(const ModesAsAsked &) = delete;
  ~ModesAsAsked() {
    umask(before_);
    MXUser_ReleaseExclLock(lock_);
  }
};

// ---- the entry directory -----------------------------------------------------------------------

// What an attempt has come to.
enum class Attempt {
  Made,
  Changed,  // somebody else was there first: look again
  Failed,   // with the errno in *error
};

// `format` takes the name of the procedure, the path and the text of the error.
Attempt Fail(const char *format, const char *path, int failure, int *error) {
  Log(format, "FileLockCreateEntryDirectory", path, Err_ErrnoToString(failure));
  *error = failure;
  return Attempt::Failed;
}

Attempt RemoveObstacle(const char *lockDir, int *error) {
  const int failure = FileDeletePath(lockDir, false);
  if (failure != 0 && failure != ENOENT) {
    return Fail("FILE: %s: an attempt to remove '%s' failed: %s\n", lockDir, failure, error);
  }
  if (failure == 0) {
    Log("FILE: %s: '%s' is not a directory. Removed.\n", "FileLockCreateEntryDirectory", lockDir);
  }
  return Attempt::Changed;
}

// Whether there is a link that leads nowhere, so that nothing is there and nothing can be made.
bool IsDanglingLink(const char *path) {
  struct stat info;
  return lstat(path, &info) == 0 && S_ISLNK(info.st_mode) &&
         FileAttributes(path, nullptr) == ENOENT;
}

// `format` is that of the name: a letter, five digits, the suffix.
HeapStr PathOf(const char *lockDir, const char *format, uint32_t number) {
  const HeapStr name(Str_SafeAsprintf(nullptr, format, number, kFileLockSuffix));
  return HeapStr(Str_SafeAsprintf(nullptr, "%s/%s", lockDir, name.get()));
}

void DrawNumber(const char *lockDir, FileLockPaths *paths) {
  const uint32_t number = FileSimpleRandom() >> 8 & 0xFFFF;
  paths->entryDir = PathOf(lockDir, "D%05u%s", number);
  paths->entryFile = PathOf(lockDir, "E%05u%s", number);
  paths->memberFile = PathOf(lockDir, "M%05u%s", number);
}

// Errno values of two calls.
struct Creations {
  int lockDir = 0;
  int entryDir = 0;
};

// The lock directory must not be a link: whoever may plant one would get a directory that is open to
// everybody, made by root, wherever it leads.
Creations MakeDirectories(const char *lockDir, bool lockDirExists, const char *entryName) {
  Creations errors;
  const ModesAsAsked scope;
  if (!lockDirExists && mkdir(lockDir, kDirectoryMode) != 0) errors.lockDir = errno;
  if (errors.lockDir != 0 && errors.lockDir != EEXIST) return errors;
  const Fd dir(open(lockDir, kFileOpenDirectory | O_NOFOLLOW));
  if (!dir || mkdirat(dir.Get(), entryName, kDirectoryMode) != 0) errors.entryDir = errno;
  return errors;
}

Attempt TryEntryDirectory(const char *lockDir, FileLockPaths *paths, int *error) {
  FileData data;
  const int found = FileAttributes(lockDir, &data);
  if (found != 0 && found != ENOENT) {
    return Fail("FILE: %s stat failure on '%s': %s\n", lockDir, found, error);
  }
  if (found == 0 && data.fileType != FILE_TYPE_DIRECTORY) return RemoveObstacle(lockDir, error);

  DrawNumber(lockDir, paths);
  const char *const path = paths->entryDir.get();
  const Creations made = MakeDirectories(lockDir, found == 0, strrchr(path, '/') + 1);
  if (made.lockDir != 0 && made.lockDir != EEXIST) {
    return Fail("FILE: %s creation failure on '%s': %s\n", lockDir, made.lockDir, error);
  }
  // What open(2) says of a link.
  const bool isLink = made.entryDir == ENOTDIR || made.entryDir == ELOOP;
  if (isLink && IsDanglingLink(lockDir)) return RemoveObstacle(lockDir, error);
  if (made.entryDir == EEXIST || made.entryDir == ENOENT) return Attempt::Changed;
  if (made.entryDir != 0) {
    File_DeleteEmptyDirectory(lockDir);  // perhaps we have just made it
    return Fail("FILE: %s creation failure on '%s': %s\n", path, made.entryDir, error);
  }
  // A member file that cannot be looked at may be there, and a rename would replace it.
  if (FileAttributes(paths->memberFile.get(), nullptr) == ENOENT) return Attempt::Made;
  if (File_DeleteEmptyDirectory(path)) return Attempt::Changed;
  return Fail("FILE: %s unable to remove '%s': %s\n", path, errno, error);
}

// ---- the member file ---------------------------------------------------------------------------

// `format` takes the name of the procedure, the path and the text of errno; returns errno.
int Report(const char *format, const char *path) {
  const ErrnoKeeper keeper;
  Log(format, "FileLockCreateMemberFile", path, Err_ErrnoToString(keeper.Get()));
  return keeper.Get();
}

// Errno-style.  The number is ours, so an entry file that has it is a leftover.
int CreateEntryFile(const char *path, FileIODescriptor *file) {
  for (bool again = true;; again = false) {
    if (FileIOOpenUnlocked(file, path, FILEIO_ACCESS_WRITE | FILEIO_FLAG_NOFOLLOW,
                           FILEIO_OPEN_CREATE_SAFE, kEntryFileMode) == FILEIO_SUCCESS) {
      break;
    }
    if (errno != EEXIST || !again) return errno;
    const int error = FileDeletePath(path, false);
    if (error != 0 && error != ENOENT) return error;
  }
  // Others have to read it.  File systems without modes refuse that, and need nothing.
  static_cast<void>(fchmod(file->posix, kEntryFileMode));
  return 0;
}

// A FileLockScanFn: keeps the highest number.  A caller that does not wait need not queue up behind
// somebody.
int KeepHighest(const FileLockMember &other, const FileLockRequest &request, void *context) {
  if (request.msecMaxWait == FILELOCK_TRYLOCK_WAIT && request.ConflictsWith(other)) return EAGAIN;
  uint32_t &highest = *static_cast<uint32_t *>(context);
  highest = std::max(highest, other.number);
  return 0;
}

// Errno-style.
int ChooseNumber(FileLockRequest *request) {
  FileNames names;
  uint32_t highest = 0;
  int error = FileLockScanDirectory(request->Dir(), &names);
  if (error == 0) error = FileLockScanner(names, *request, KeepHighest, &highest);
  // A participant that went on from 0 would go before all others.
  if (error == 0 && highest == UINT32_MAX) error = EOVERFLOW;
  request->me.number = highest + 1;
  return error;
}

// Errno-style; closes the file in any case.
int WriteRecord(const FileLockRequest &request, FileIODescriptor *file, const char *path) {
  char record[kFileLockRecordSize];
  FileLockFormatRecord(request, record);
  size_t length = 0;
  int error = 0;
  if (FileIO_Write(file, record, sizeof record, &length) != FILEIO_SUCCESS) {
    error = Report("FILE: %s write of '%s' failed: %s\n", path);
  }
  if (FileIOCloseUnlocked(file) != FILEIO_SUCCESS && error == 0) {
    error = Report("FILE: %s close of '%s' failed: %s\n", path);
  }
  if (error == 0 && length != sizeof record) {
    Log("FILE: %s write length issue on '%s': %zd and %zd\n", "FileLockCreateMemberFile", path,
        static_cast<ssize_t>(length), static_cast<ssize_t>(sizeof record));
    error = EIO;
  }
  return error;
}

// Errno-style: the entry file, with the number that was chosen while it was there.
int WriteEntryFile(FileLockRequest *request, const char *path) {
  FileIODescriptor file;
  int error = CreateEntryFile(path, &file);
  if (error != 0) return error;
  error = ChooseNumber(request);
  if (error == 0) return WriteRecord(*request, &file, path);
  FileIOCloseUnlocked(&file);
  return error;
}

bool IsOwnMember(const FileLockRequest &request) {
  FileLockRecord record;
  FileLockMember found;
  return FileLockMemberValues(request.Dir(), request.me.memberName, &record, &found) == 0 &&
         found.number == request.me.number &&
         strcmp(found.executionID, request.me.executionID) == 0 &&
         strcmp(found.machineID, request.me.machineID) == 0;
}

// Errno-style.
int RenameEntry(const FileLockRequest &request, const FileLockPaths &paths) {
  const char *const from = paths.entryFile.get();
  const char *const to = paths.memberFile.get();
  if (rename(from, to) == 0) return 0;
  const ErrnoKeeper keeper;
  // It may have been done all the same: a file server whose answer got lost is asked again, and then
  // knows no such file, or the time for its answer is up.
  if (IsOwnMember(request)) return 0;
  Log("FILE: %s FileRename of '%s' to '%s' failed: %s\n", "FileLockCreateMemberFile", from, to,
      Err_ErrnoToString(keeper.Get()));
  return keeper.Get();
}

}  // namespace

const char *FileLockPaths::MemberName() const {
  return strrchr(memberFile.get(), '/') + 1;
}

int FileLockCreateEntryDirectory(const FileLockRequest &request, FileLockPaths *paths) {
  for (int attempts = 1;; attempts++) {
    int error = 0;
    if (TryEntryDirectory(request.Dir(), paths, &error) != Attempt::Changed) return error;
    if (MonotonicClock_Ms() - request.startMs > kMaxEntryMs) {
      Log("FILE: %s lack of progress on '%s'\n", "FileLockCreateEntryDirectory", request.Dir());
      return EBUSY;
    }
    if (attempts >= kQuickAttempts) error = FileLockPause(request, 1, 10);
    if (error != 0) return error;
  }
}

int FileLockCreateMemberFile(FileLockRequest *request, const FileLockPaths &paths) {
  const char *const entryDir = paths.entryDir.get();
  const char *const entryFile = paths.entryFile.get();
  request->me.memberName = paths.MemberName();
  int error = WriteEntryFile(request, entryFile);
  if (error == 0) error = RenameEntry(*request, paths);
  if (error != 0) {
    FileLockWithdraw(*request, entryFile, entryDir);
    return error;
  }
  if (File_DeleteEmptyDirectory(entryDir)) return 0;
  // Somebody has taken us for dead, and waits no longer.
  error = errno;
  FileLockWithdraw(*request, paths.memberFile.get(), nullptr);
  return error;
}

// The entry directory comes after the entry file: while it exists, the number is the participant's.
void FileLockWithdraw(const FileLockRequest &request, const char *file, const char *entryDir) {
  FileDeletePath(file, false);
  if (entryDir != nullptr) File_DeleteEmptyDirectory(entryDir);
  File_DeleteEmptyDirectory(request.Dir());
}
