// fileLockEntry.cpp -- getting into the queue: the entry directory, the record, the member file.
//
// Holds:  1. A number (that of the names) belongs to who made the entry directory with it, while
//            that stands; afterwards to who has the member file.
//         2. The lock directory, and what is in it, goes as soon as it is empty; so any step may
//            find it gone, and then begins again.
//         3. The directories are for everybody, whatever the umask, from their first moment: who is
//            refused one would take it for read-only media, and a shared lock for granted.  So the
//            umask is 0 while one is made, and a mode set afterwards would not do.  The umask is the
//            process's: a lock keeps two threads from restoring each other's 0.

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "lib/file/fileInt.h"
#include "lib/file/lock/fileLockInt.h"
#include "lib/file/raw/fileIOInt.h"
#include "lib/public/err.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fileIO.h"
#include "lib/public/log.h"
#include "lib/public/monotonicClock.h"
#include "lib/public/mxUser.h"
#include "lib/public/str.h"

namespace {

constexpr int64_t kMaxEntryMs = 8000;

constexpr mode_t kDirectoryMode = 0777;
constexpr int kEntryFileMode = 0644;

// Not an errno: something changed, look again.
constexpr int kAgain = -1;

constexpr MX_Rank kUmaskRank = 0xFF000000;
constinit std::atomic<MXUserExclLock *> umaskLock{nullptr};

// ---- directories -------------------------------------------------------------------------------

// Errno-style.
int MakeDirectory(const char *path) {
  MXUserExclLock *const lock =
      MXUser_CreateSingletonExclLock(&umaskLock, "fileLockUmaskLock", kUmaskRank);
  MXUser_AcquireExclLock(lock);
  const mode_t before = umask(0);
  const int error = mkdir(path, kDirectoryMode) == 0 ? 0 : errno;
  umask(before);
  MXUser_ReleaseExclLock(lock);
  return error;
}

// Logs a failure of FileLockCreateEntryDirectory and returns it: `format` takes its name, the path
// and the text of the error.
int Report(const char *format, const char *path, int error) {
  Log(format, "FileLockCreateEntryDirectory", path, Err_ErrnoToString(error));
  return error;
}

int MakeLockDirectory(const char *lockDir) {
  const int error = MakeDirectory(lockDir);
  if (error == 0 || error == EEXIST) return 0;
  return Report("FILE: %s creation failure on '%s': %s\n", lockDir, error);
}

// Errno-style, or kAgain: afterwards there is, or was a moment ago, a lock directory.
int EnsureLockDirectory(const char *lockDir) {
  FileData data;
  int error = FileAttributes(lockDir, &data);
  if (error == ENOENT) return MakeLockDirectory(lockDir);
  if (error != 0) return Report("FILE: %s stat failure on '%s': %s\n", lockDir, error);
  if (data.fileType == FILE_TYPE_DIRECTORY) return 0;
  error = FileDeletePath(lockDir, false);
  if (error == ENOENT) return kAgain;
  if (error != 0) {
    return Report("FILE: %s: an attempt to remove '%s' failed: %s\n", lockDir, error);
  }
  Log("FILE: %s: '%s' is not a directory. Removed.\n", "FileLockCreateEntryDirectory", lockDir);
  return kAgain;
}

HeapStr PathOf(const char *lockDir, const char *nameFormat, uint32_t number) {
  char name[sizeof "M65535.lck"];
  Str_Sprintf(name, sizeof name, nameFormat, number, kFileLockSuffix);
  return HeapStr(File_PathJoin(lockDir, name));
}

void DrawNumber(const char *lockDir, FileLockPlaces *places) {
  const uint32_t number = FileSimpleRandom() >> 8 & 0xFFFF;
  places->entryDir = PathOf(lockDir, "D%05u%s", number);
  places->entryFile = PathOf(lockDir, "E%05u%s", number);
  places->memberFile = PathOf(lockDir, "M%05u%s", number);
}

// Errno-style, or kAgain when the number is taken, or the lock directory has gone.
int MakeEntryDirectory(const FileLockPlaces &places) {
  const char *const path = places.entryDir.get();
  const int error = MakeDirectory(path);
  if (error == EEXIST || error == ENOENT) return kAgain;
  if (error != 0) return Report("FILE: %s creation failure on '%s': %s\n", path, error);
  // A member file that cannot be looked at may be there, and a rename would replace it.
  if (FileAttributes(places.memberFile.get(), nullptr) == ENOENT) return 0;
  if (File_DeleteEmptyDirectory(path)) return kAgain;
  return Report("FILE: %s unable to remove '%s': %s\n", path, errno);
}

// ---- the member file ---------------------------------------------------------------------------

// Who gives up removes what is his, and errno stays.  Without an entry file of his own that is the
// directory.
void WithdrawEntryDirectory(const FileLockRequest &request, const FileLockPlaces &places) {
  const ErrnoKeeper keeper;
  File_DeleteEmptyDirectory(places.entryDir.get());
  File_DeleteEmptyDirectory(request.lockDir);
}

// The directory goes last: while it stands, all that has the number is his.
void WithdrawChooser(const FileLockRequest &request, const FileLockPlaces &places) {
  const ErrnoKeeper keeper;
  FileDeletePath(places.entryFile.get(), false);
  FileDeletePath(places.memberFile.get(), false);
  WithdrawEntryDirectory(request, places);
}

// Afterwards it is the member file alone: as soon as that has gone, the other names may be those of
// somebody else who has drawn the number.
void WithdrawMember(const FileLockRequest &request, const FileLockPlaces &places) {
  const ErrnoKeeper keeper;
  FileDeletePath(places.memberFile.get(), false);
  File_DeleteEmptyDirectory(request.lockDir);
}

int ReportMember(const char *format, const char *path) {
  const ErrnoKeeper keeper;
  Log(format, "FileLockCreateMemberFile", path, Err_ErrnoToString(keeper.Get()));
  return keeper.Get();
}

// A FileLockScanFn: keeps the highest number in the request.
int KeepHighest(const char *, const char *, const FileLockMember &other, FileLockRequest *request) {
  if (other.number > request->me.number) request->me.number = other.number;
  return 0;
}

// Errno-style.
int ChooseNumber(FileLockRequest *request) {
  request->me.number = 0;
  const int error = FileLockScanner(request->lockDir, KeepHighest, request, false);
  if (error != 0) return error;
  // Who went on from 0 would go before all others.
  if (request->me.number == UINT32_MAX) return EOVERFLOW;
  request->me.number++;
  return 0;
}

// Errno-style; closes the file in any case.
int WriteRecord(const FileLockRequest &request, FileIODescriptor *file, const char *path) {
  char record[kFileLockRecordSize];
  FileLockFormatRecord(request, record);
  size_t length = 0;
  int error = 0;
  if (FileIO_Write(file, record, sizeof record, &length) != FILEIO_SUCCESS) {
    error = ReportMember("FILE: %s write of '%s' failed: %s\n", path);
  }
  if (FileIOCloseUnlocked(file) != FILEIO_SUCCESS && error == 0) {
    error = ReportMember("FILE: %s close of '%s' failed: %s\n", path);
  }
  if (error == 0 && length != sizeof record) {
    Log("FILE: %s write length issue on '%s': %zd and %zd\n", "FileLockCreateMemberFile", path,
        static_cast<ssize_t>(length), static_cast<ssize_t>(sizeof record));
    error = EIO;
  }
  return error;
}

int RenameEntry(const FileLockPlaces &places) {
  const char *const from = places.entryFile.get();
  const char *const to = places.memberFile.get();
  if (rename(from, to) == 0) return 0;
  const ErrnoKeeper keeper;
  Log("FILE: %s FileRename of '%s' to '%s' failed: %s\n", "FileLockCreateMemberFile", from, to,
      Err_ErrnoToString(keeper.Get()));
  return keeper.Get();
}

// Errno-style: from the open entry file, which is closed in any case, to the member file.
int MakeMemberFile(FileLockRequest *request, const FileLockPlaces &places, FileIODescriptor *file) {
  int error = ChooseNumber(request);
  if (error != 0) {
    FileIOCloseUnlocked(file);
    return error;
  }
  error = WriteRecord(*request, file, places.entryFile.get());
  return error != 0 ? error : RenameEntry(places);
}

// Errno-style: lets the others look at the number, and waits for those with lower ones.
int AwaitTurn(FileLockRequest *request, const FileLockPlaces &places) {
  if (!File_DeleteEmptyDirectory(places.entryDir.get())) return errno;
  return FileLockScanner(request->lockDir, FileLockWaitForPossession, request, true);
}

}  // namespace

const char *FileLockPlaces::MemberName() const {
  return strrchr(memberFile.get(), '/') + 1;
}

int FileLockCreateEntryDirectory(const FileLockRequest &request, FileLockPlaces *places) {
  int error = kAgain;
  while (error == kAgain) {
    error = EnsureLockDirectory(request.lockDir);
    if (error == 0) {
      DrawNumber(request.lockDir, places);
      error = MakeEntryDirectory(*places);
    }
    if (error == kAgain && MonotonicClock_Ms() - request.startMs > kMaxEntryMs) {
      Log("FILE: %s lack of progress on '%s'\n", "FileLockCreateEntryDirectory", request.lockDir);
      return EBUSY;
    }
  }
  return error;
}

int FileLockCreateMemberFile(FileLockRequest *request, const FileLockPlaces &places) {
  FileIODescriptor file;
  if (FileIOOpenUnlocked(&file, places.entryFile.get(), FILEIO_ACCESS_WRITE | FILEIO_FLAG_NOFOLLOW,
                         FILEIO_OPEN_CREATE_SAFE, kEntryFileMode) != FILEIO_SUCCESS) {
    const int error = errno;
    WithdrawEntryDirectory(*request, places);
    return error;
  }
  int error = MakeMemberFile(request, places, &file);
  if (error != 0) {
    WithdrawChooser(*request, places);
    return error;
  }
  error = AwaitTurn(request, places);
  if (error != 0) WithdrawMember(*request, places);
  return error;
}
