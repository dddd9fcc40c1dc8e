// fileLockInt.h -- what the files of the portable lock share: identities, records, the queue.
//
// Errno-style results only: 0, or the errno of what failed, which need not be in errno.  EAGAIN always
// means that the caller's time is up, ECANCELED that the caller has given up.  A lock directory is
// given by its path; names are of entries in it.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "lib/file/fileInt.h"
#include "lib/public/fileLock.h"
#include "lib/public/heap.h"

inline constexpr size_t kFileLockRecordSize = 512;
inline constexpr char kFileLockSuffix[] = ".lck";

// First letters of names: the directory of a participant that chooses a number, its record before and
// after it has one.
inline constexpr char kFileLockChoosing = 'D';
inline constexpr char kFileLockEntry = 'E';
inline constexpr char kFileLockMember = 'M';

inline constexpr char kFileLockExclusive[] = "X";
inline constexpr char kFileLockShared[] = "S";

// What a member record says.  The strings are in the record's buffer or belong to somebody else.
struct FileLockMember {
  const char *machineID;
  const char *executionID;
  const char *lockType;    // "X" or "S"
  const char *memberName;  // of the member file
  const char *payload;     // null when there is none
  uint32_t number;
};

// ---- identities (fileLockIdentity.cpp) ---------------------------------------------------------

// This machine, as records name it; lives as long as the process.  A child may get another one.
[[nodiscard]] const char *FileLockMachineID();

// Whether `b`, of a record, names the same machine as `a`, which is this one's.
[[nodiscard]] bool OldMachineIDMatch(const char *a, const char *b);

// A host's identity of old, in which the hardware identifier begins at byte 4; and whether it is `own`.
using FileLockOldHost = std::array<unsigned char, 12>;
[[nodiscard]] bool FileLockSameOldHost(const FileLockOldHost &own, const FileLockOldHost &other);

// This process, as records name it: its number and its start time in microseconds.
struct FileLockExecution {
  const char *machineID;
  uint64_t startTime;
  char text[40];
};
[[nodiscard]] FileLockExecution FileLockOwnExecution();

// Whether the process of this machine that an execution ID names may still live.
[[nodiscard]] bool FileLockValidExecutionID(const char *executionID);

struct FileLockPayload {
  char text[12];
};
[[nodiscard]] FileLockPayload FileLockMakePayload(const char *lockDir);

// ---- a request (fileLock.cpp) ------------------------------------------------------------------

// A call that takes a lock.  It stays where it is: `me` points into it.
struct FileLockRequest {
  const char *path;  // of the file to be locked
  HeapStr lockDir;
  uint32_t msecMaxWait;
  int cancelFd;     // ends the wait when it becomes readable; -1: none
  int64_t startMs;  // MonotonicClock_Ms when it began
  FileLockExecution execution;
  FileLockPayload payload;
  FileLockMember me;  // number 0 until it has been chosen

  FileLockRequest(const char *filePath, bool exclusive, uint32_t waitMs, int cancelDescriptor);
  FileLockRequest(const FileLockRequest &) = delete;

  const char *Dir() const { return lockDir.get(); }
  bool IsExclusive() const { return *me.lockType == *kFileLockExclusive; }
  bool ConflictsWith(const FileLockMember &other) const {
    return IsExclusive() || *other.lockType == *kFileLockExclusive;
  }
};

// ---- records (fileLockRecord.cpp) --------------------------------------------------------------

// A record, taken apart in its own buffer.
struct FileLockRecord {
  static constexpr unsigned kMaxTokens = 16;

  char text[2 * kFileLockRecordSize + 2];  // room for an old record's new form
  unsigned numTokens;
  char *tokens[kMaxTokens];
};

// Fills `out` with the text of a record, zeros after it.
void FileLockFormatRecord(const FileLockRequest &request, char (&out)[kFileLockRecordSize]);

// Takes apart the NUL-terminated record->text.  False when it is no record; then the tokens are what
// was found.  *member points into the record, but for memberName, which is left alone.
[[nodiscard]] bool FileLockParseRecord(FileLockRecord *record, FileLockMember *member);

// Errno-style: reads the member file `name`.  What cannot be a member file is logged and removed:
// ENOENT, as for one that is not there.
[[nodiscard]] int FileLockMemberValues(const char *lockDir, const char *name,
                                       FileLockRecord *buffer, FileLockMember *values);

// `text`, which somebody else wrote, as one line that the log can take; never null.
[[nodiscard]] HeapStr FileLockPrintable(const char *text);

// The path of an entry for the log.
[[nodiscard]] HeapStr FileLockPrintablePath(const char *lockDir, const char *name);

// ---- the lock directory (fileLockScan.cpp) -----------------------------------------------------

// Whether an entry of a lock directory may have this name.
[[nodiscard]] bool FileLockIsEntryName(const char *name);

// Errno-style: all names in the lock directory, after those were removed that no entry has.
[[nodiscard]] int FileLockScanDirectory(const char *lockDir, FileNames *names);

// Errno-style, a failure being logged: removes an entry, also something else in its place, or what
// is no entry.  What is not there is fine.
[[nodiscard]] int FileLockRemoveLockingFile(const char *lockDir, const char *name);

// Looks at one member; a result other than 0 ends the scan with it.
using FileLockScanFn = int (*)(const FileLockMember &other, const FileLockRequest &request,
                               void *context);

// Calls `callback` for every member in a listing but the request's own, after those were removed that
// belong to nobody.  Errno-style, or the callback's result.
[[nodiscard]] int FileLockScanner(const FileNames &names, const FileLockRequest &request,
                                  FileLockScanFn callback, void *context);

// ---- taking it (fileLockEntry.cpp, fileLockWait.cpp) -------------------------------------------

// The paths of a participant.  The member's is what remains of them in a token.
struct FileLockPaths {
  HeapStr entryDir;   // while the number is being chosen
  HeapStr entryFile;  // the record, before its rename
  HeapStr memberFile;

  // memberFile without its directory.
  const char *MemberName() const;
};

// Errno-style: makes the lock directory unless it is there, and in it an entry directory with a
// number that nobody else has.
[[nodiscard]] int FileLockCreateEntryDirectory(const FileLockRequest &request,
                                               FileLockPaths *paths);

// Errno-style: from the entry directory to a member file with a bakery number.  On failure nothing is
// left in the lock directory.
[[nodiscard]] int FileLockCreateMemberFile(FileLockRequest *request, const FileLockPaths &paths);

// Errno-style: waits until it is the member's turn.  On failure nothing is left in the lock directory.
[[nodiscard]] int FileLockAwaitTurn(const FileLockRequest &request, const FileLockPaths &paths);

// Removes what is the participant's own, `file` and then `entryDir` (null: neither there nor its
// own any more), and the lock directory when nobody else is in it.
void FileLockWithdraw(const FileLockRequest &request, const char *file, const char *entryDir);

// Whether locks of the host are better than portable ones, for FILEIO_FLAG_LOCK_DEFAULT, too.  Neither
// host has one that works on every file system and between machines.
[[nodiscard]] constexpr bool FileLockNativeIsDefault() {
  return false;
}

// ---- time and chance (fileSleeper.cpp) ---------------------------------------------------------

// Sleeps a random time of lo to hi milliseconds, also through signals, and returns it.  *error is 0;
// ECANCELED when the sleep ended early since cancelFd (-1: none) is readable, at its end, or not open;
// or the errno of poll(2).
uint32_t FileSleeper(uint32_t lo, uint32_t hi, int cancelFd, int *error);

// Errno-style: the same, but not beyond the request's time; EAGAIN when that is up.
[[nodiscard]] int FileLockPause(const FileLockRequest &request, uint32_t lo, uint32_t hi);

// A number that another process is not likely to get at the same time.  No secret.
[[nodiscard]] uint32_t FileSimpleRandom();
