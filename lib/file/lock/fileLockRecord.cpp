// fileLockRecord.cpp -- the records of a lock's members: written, read and taken apart.
//
// Format: docs/lock-format.md
// Invariants: anybody who can write to the lock directory can put anything there, and this may run as
//         root.  So what is opened must be a file and no symbolic link, what is logged of it is
//         printable, and of a file that has other names, which may be somebody's secret, nothing is
//         logged.
// Tests: tests/unit/fileLock_test.cpp, fuzz/lockRecord_fuzz.cpp

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "lib/file/fileInt.h"
#include "lib/file/lock/fileLockInt.h"
#include "lib/public/displayText.h"
#include "lib/public/err.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fd.h"
#include "lib/public/log.h"
#include "lib/public/str.h"

namespace {

constexpr char kSelf[] = "FileLockMemberValues";
constexpr unsigned kFirstProperty = 5;  // tokens: machine, execution, number, type, start, ...
constexpr unsigned kOldNumTokens = 6;

// ---- taking apart ----------------------------------------------------------------------------

bool Split(FileLockRecord *record) {
  record->numTokens = 0;
  char *rest = nullptr;
  for (char *token = strtok_r(record->text, " ", &rest); token != nullptr;
       token = strtok_r(nullptr, " ", &rest)) {
    if (record->numTokens == FileLockRecord::kMaxTokens) return false;
    record->tokens[record->numTokens++] = token;
  }
  return record->numTokens >= kFirstProperty;
}

// Reads KEY=VALUE tokens.
bool ReadProperties(const FileLockRecord &record, FileLockMember *member) {
  member->payload = nullptr;
  for (unsigned i = kFirstProperty; i < record.numTokens; i++) {
    const char *const token = record.tokens[i];
    const char *const equals = strchr(token, '=');
    if (equals == nullptr || equals == token || equals[1] == '\0') return false;
    const std::string_view key(token, static_cast<size_t>(equals - token));
    if (key == "lc") member->payload = equals + 1;
  }
  return true;
}

// In old records the execution ID is the process's number alone; the start time stands by itself.
bool IsOld(const FileLockRecord &record) {
  return record.numTokens == kOldNumTokens && strpbrk(record.tokens[1], "-()") == nullptr;
}

bool Modernize(FileLockRecord *record) {
  char text[sizeof record->text];
  const char *const *const t = record->tokens;
  Str_Sprintf(text, sizeof text, "%s %s-%s %s %s %s %s", t[0], t[1], t[4], t[2], t[3], t[4], t[5]);
  Str_Strcpy(record->text, text, sizeof record->text);
  return Split(record);
}

// As scanf(3) does with %u, and so other programs: what follows the digits does not count, and a larger
// number loses its upper bits.  To refuse such a record would mean to remove it.
bool ParseNumber(const char *text, uint32_t *number) {
  char *end = nullptr;
  *number = static_cast<uint32_t>(strtoull(text, &end, 10));
  return end != text;
}

// ---- reading ---------------------------------------------------------------------------------

void LogContents(const char *path, const FileLockRecord &record) {
  Log("FILE: %s '%s' contents are:\n", kSelf, path);
  for (unsigned i = 0; i < record.numTokens; i++) {
    Log("FILE: %s %s argv[%u]: '%s'\n", kSelf, path, i, FileLockPrintable(record.tokens[i]).get());
  }
}

// A member file.
struct MemberPath {
  const char *lockDir;
  const char *name;
  HeapStr shown;  // for the log
};

// Errno-style: removes the file, which is then as if it had never been there.
int RemoveProblematic(const MemberPath &path, const FileLockRecord *contents = nullptr) {
  Log("FILE: %s removing problematic lock file '%s'\n", kSelf, path.shown.get());
  if (contents != nullptr) LogContents(path.shown.get(), *contents);
  const int error = FileLockRemoveLockingFile(path.lockDir, path.name);
  return error == 0 ? ENOENT : error;
}

// Errno-style, after a log record of errno: `format` takes this procedure, the path and the text of
// errno.  A file that another machine has removed may still be known to this one.
int Report(const char *format, const MemberPath &path) {
  const ErrnoKeeper keeper;
  if (keeper.Get() == ENOENT || keeper.Get() == ESTALE) return ENOENT;
  Log(format, kSelf, path.shown.get(), Err_ErrnoToString(keeper.Get()));
  return keeper.Get();
}

// Whether open(2) has found something that no record is in: a link or a socket.
bool IsNoFile(int error) {
  return error == ELOOP || error == ENXIO || error == EOPNOTSUPP;
}

// Errno-style: the size must be that of a record.  *onlyName: the file has no other name.
int CheckFile(const Fd &fd, const MemberPath &path, bool *onlyName) {
  struct stat info;
  if (fstat(fd.Get(), &info) != 0) {
    return Report("FILE: %s file size failure on '%s': %s\n", path);
  }
  *onlyName = info.st_nlink <= 1;
  if (S_ISREG(info.st_mode) && info.st_size == off_t{kFileLockRecordSize}) return 0;
  Log("FILE: %s file '%s': size %llu, required size %zd\n", kSelf, path.shown.get(),
      static_cast<unsigned long long>(info.st_size), static_cast<ssize_t>(kFileLockRecordSize));
  return RemoveProblematic(path);
}

int ReadRecord(const Fd &fd, const MemberPath &path, char *text) {
  ssize_t length;
  do {
    length = read(fd.Get(), text, kFileLockRecordSize);
  } while (length < 0 && errno == EINTR);
  if (length < 0) return Report("FILE: %s read failure on '%s': %s\n", path);
  text[length] = '\0';
  if (length == ssize_t{kFileLockRecordSize}) return 0;
  Log("FILE: %s read length issue on '%s': %zd and %zd\n", kSelf, path.shown.get(), length,
      static_cast<ssize_t>(kFileLockRecordSize));
  return EIO;
}

}  // namespace

void FileLockFormatRecord(const FileLockRequest &request, char (&out)[kFileLockRecordSize]) {
  memset(out, 0, sizeof out);
  Str_Sprintf(out, sizeof out, "%s %s %u %s %llu lc=%s", request.me.machineID,
              request.me.executionID, request.me.number, request.me.lockType,
              static_cast<unsigned long long>(request.execution.startTime), request.me.payload);
}

bool FileLockParseRecord(FileLockRecord *record, FileLockMember *member) {
  if (!Split(record) || !ReadProperties(*record, member)) return false;
  if (IsOld(*record) && (!Modernize(record) || !ReadProperties(*record, member))) return false;
  member->machineID = record->tokens[0];
  member->executionID = record->tokens[1];
  member->lockType = record->tokens[3];
  return ParseNumber(record->tokens[2], &member->number) &&
         (strcmp(member->lockType, kFileLockExclusive) == 0 ||
          strcmp(member->lockType, kFileLockShared) == 0);
}

int FileLockMemberValues(const char *lockDir, const char *name, FileLockRecord *buffer,
                         FileLockMember *values) {
  const HeapStr path(Str_SafeAsprintf(nullptr, "%s/%s", lockDir, name));
  const MemberPath member = {lockDir, name, FileLockPrintablePath(lockDir, name)};
  // Neither a link to somebody's secret is read, nor does a FIFO make anybody wait.
  const Fd fd(open(path.get(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    if (IsNoFile(errno)) return RemoveProblematic(member);
    return Report("FILE: %s open failure on '%s': %s\n", member);
  }
  bool onlyName = true;
  int error = CheckFile(fd, member, &onlyName);
  if (error == 0) error = ReadRecord(fd, member, buffer->text);
  if (error != 0) return error;
  if (!FileLockParseRecord(buffer, values)) {
    return RemoveProblematic(member, onlyName ? buffer : nullptr);
  }
  values->memberName = name;
  return 0;
}

HeapStr FileLockPrintable(const char *text) {
  return HeapStr(DisplayText_Line(text));
}

HeapStr FileLockPrintablePath(const char *lockDir, const char *name) {
  return HeapStr(Str_SafeAsprintf(nullptr, "%s/%s", lockDir, FileLockPrintable(name).get()));
}
