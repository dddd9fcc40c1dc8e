// fileLockInt.h -- what the files of the portable lock share: identities, records, the queue.
//
// Errno-style: 0, or the errno of the call that failed.  A lock directory is given by its path; names
// are of entries in it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "lib/file/fileInt.h"
#include "lib/public/fileLock.h"
#include "lib/public/heap.h"

inline constexpr size_t kFileLockRecordSize = 512;
inline constexpr char kFileLockSuffix[] = ".lck";

// First letters of names: the directory of who chooses a number, the record before and after the
// number is in it.
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

// Somebody who takes a lock.
struct FileLockRequest {
  const char *path;  // of the file to be locked
  const char *lockDir;
  uint32_t msecMaxWait;
  int cancelFd;        // ends the wait when it becomes readable; -1: none
  int64_t startMs;     // MonotonicClock_Ms when it began
  uint64_t startTime;  // of this process, as in the execution ID
  FileLockMember me;   // number 0 until it has been chosen

  bool IsExclusive() const { return *me.lockType == *kFileLockExclusive; }
};

// ---- identities (fileLockIdentity.cpp) ---------------------------------------------------------

// This machine, as records name it; lives as long as the process.
[[nodiscard]] const char *FileLockMachineID();

// Whether `b`, of a record, names the same machine as `a`, which is this one's.
[[nodiscard]] bool OldMachineIDMatch(const char *a, const char *b);

// The start time of this process, whose number is `pid`, as Platform_ProcessStartTime tells it.
[[nodiscard]] uint64_t FileLockOwnStartTime(pid_t pid);

struct FileLockExecutionID {
  char text[40];
};
[[nodiscard]] FileLockExecutionID FileLockMakeExecutionID(pid_t pid, uint64_t startTime);

// Whether the process of this machine that an execution ID names may still live.
[[nodiscard]] bool FileLockValidExecutionID(const char *executionID);

struct FileLockPayload {
  char text[12];
};
[[nodiscard]] FileLockPayload FileLockMakePayload(const char *lockDir);

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

// Takes apart what stands in record->text, NUL-terminated.  False when it is no record; then the
// tokens are what was found.  *member points into the record, but for memberName, which is left
// alone.
[[nodiscard]] bool FileLockParseRecord(FileLockRecord *record, FileLockMember *member);

// Errno-style: reads the member file `name`.  What cannot be a member file is logged and removed:
// ENOENT, as for one that is not there.
[[nodiscard]] int FileLockMemberValues(const char *lockDir, const char *name,
                                       FileLockRecord *buffer, FileLockMember *values);

// ---- the lock directory (fileLockScan.cpp) -----------------------------------------------------

// Whether an entry of a lock directory may have this name.
[[nodiscard]] bool FileLockIsEntryName(const char *name);

// Errno-style: all names in the lock directory, after those were removed that no entry has.
[[nodiscard]] int FileLockScanDirectory(const char *lockDir, FileNames *names);

// Errno-style: removes an entry; one that is not there is fine.
[[nodiscard]] int FileLockRemoveLockingFile(const char *lockDir, const char *name);

// Looks at one member; a result other than 0 ends the scan with it.
using FileLockScanFn = int (*)(const char *lockDir, const char *name, const FileLockMember &other,
                               FileLockRequest *request);

// Calls `callback` for every member in the lock directory, after what belongs to nobody was
// removed.  With cleanUp it first waits until nobody chooses a number: who still does after 8
// seconds is taken for dead and removed.  Errno-style, or the callback's result.
[[nodiscard]] int FileLockScanner(const char *lockDir, FileLockScanFn callback,
                                  FileLockRequest *request, bool cleanUp);

// ---- taking it (fileLockEntry.cpp, fileLockWait.cpp, fileLockIntrinsic.cpp) --------------------

// The places of somebody who takes a lock.  The member's path is what remains of them.
struct FileLockPlaces {
  HeapStr entryDir;   // while the number is being chosen
  HeapStr entryFile;  // the record, before its rename
  HeapStr memberFile;

  // memberFile without its directory.
  const char *MemberName() const;
};

// Errno-style: makes the lock directory unless it is there, and in it an entry directory with a
// number that nobody else has.
[[nodiscard]] int FileLockCreateEntryDirectory(const FileLockRequest &request,
                                               FileLockPlaces *places);

// Errno-style: goes from the entry directory to the member file with a bakery number, and waits
// until it is its turn.  On failure nothing is left in the lock directory; EAGAIN when the time is
// up.
[[nodiscard]] int FileLockCreateMemberFile(FileLockRequest *request, const FileLockPlaces &places);

// A FileLockScanFn: waits until `other` is no obstacle.  EAGAIN when the time is up.
[[nodiscard]] int FileLockWaitForPossession(const char *lockDir, const char *name,
                                            const FileLockMember &other, FileLockRequest *request);

// Whether locks of the host are better than portable ones, here and for FILEIO_FLAG_LOCK_DEFAULT.
[[nodiscard]] bool FileLockNativeIsDefault();

// Both take a lock on the normalised path; null with the cause in *err, 0 when the time was up.
[[nodiscard]] FileLockToken *FileLockIntrinsic(const char *path, bool exclusive,
                                               uint32_t msecMaxWait, int cancelFd, int *err);
[[nodiscard]] FileLockToken *FileLockIntrinsicPortable(FileLockRequest *request, int *err);

// Errno-style: releases the lock and frees the token in any case.
[[nodiscard]] int FileLockRelease(FileLockToken *token);

// ---- time and chance (fileSleeper.cpp) ---------------------------------------------------------

// Sleeps a random time of lo to hi milliseconds, also through signals, and returns it.  *error is 0;
// ECANCELED when the sleep ended early since cancelFd (-1: none) is readable, at its end, or not open;
// or the errno of poll(2).
uint32_t FileSleeper(uint32_t lo, uint32_t hi, int cancelFd, int *error);

// A number that another process is not likely to get at the same time.  No secret.
[[nodiscard]] uint32_t FileSimpleRandom();
