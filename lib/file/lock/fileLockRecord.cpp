// fileLockRecord.cpp -- the records of a lock's members: written, read and taken apart.
//
// Format: docs/lock-format.md
// Holds:  whoever can write to the lock directory can put anything there, and this may run as root.
//         So what is opened must be a file and no symbolic link, what is logged of it has no control
//         characters, and of a file that has other names, which may be somebody's secret, nothing is
//         logged.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "lib/file/fileInt.h"
#include "lib/file/lock/fileLockInt.h"
#include "lib/file/raw/fileIOInt.h"
#include "lib/public/err.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fileIO.h"
#include "lib/public/log.h"
#include "lib/public/str.h"

namespace {

constexpr char kSelf[] = "FileLockMemberValues";
constexpr unsigned kFirstProperty = 5;  // tokens: machine, execution, number, type, start, ...
constexpr unsigned kOldNumTokens = 6;

// Closes the file without a word: it was only read.
class ReadOnlyFile {
  FileIODescriptor fd_;

 public:
  ReadOnlyFile() { FileIO_Invalidate(&fd_); }
  ReadOnlyFile(const ReadOnlyFile &) = delete;
  ReadOnlyFile &operator=(const ReadOnlyFile &) = delete;
  ~ReadOnlyFile() {
    const ErrnoKeeper keeper;
    if (FileIO_IsValid(&fd_)) FileIOCloseUnlocked(&fd_);
  }
  FileIODescriptor *Get() { return &fd_; }
};

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

bool ParseNumber(const char *text, uint32_t *number) {
  if (*text < '0' || *text > '9') return false;
  char *end = nullptr;
  errno = 0;
  const unsigned long long value = strtoull(text, &end, 10);
  if (errno != 0 || *end != '\0' || value > UINT32_MAX) return false;
  *number = static_cast<uint32_t>(value);
  return true;
}

// ---- reading ---------------------------------------------------------------------------------

void LogContents(const char *path, const FileLockRecord &record) {
  Log("FILE: %s '%s' contents are:\n", kSelf, path);
  for (unsigned i = 0; i < record.numTokens; i++) {
    char *const token = record.tokens[i];
    std::replace_if(
        token, token + strlen(token), [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
    Log("FILE: %s %s argv[%u]: '%s'\n", kSelf, path, i, token);
  }
}

// Errno-style: removes the file, which is then as if it had never been there.
int RemoveProblematic(const char *path, const FileLockRecord *contents = nullptr) {
  Log("FILE: %s removing problematic lock file '%s'\n", kSelf, path);
  if (contents != nullptr) LogContents(path, *contents);
  const int error = FileDeletePath(path, false);
  return error == 0 ? ENOENT : error;
}

// Errno-style, after a log record: `format` takes this procedure, the path and the text of errno.
int Report(const char *format, const char *path) {
  const ErrnoKeeper keeper;
  Log(format, kSelf, path, Err_ErrnoToString(keeper.Get()));
  return keeper.Get();
}

// A file that another machine has removed may still be known to this one.
bool IsGone(int error) {
  return error == ENOENT || error == ESTALE;
}

// Errno-style: the size must be that of a record.  *onlyName: the file has no other name.
int CheckFile(const FileIODescriptor &fd, const char *path, bool *onlyName) {
  struct stat info;
  if (fstat(fd.posix, &info) != 0) {
    return IsGone(errno) ? ENOENT : Report("FILE: %s file size failure on '%s': %s\n", path);
  }
  *onlyName = info.st_nlink <= 1;
  if (info.st_size == off_t{kFileLockRecordSize}) return 0;
  Log("FILE: %s file '%s': size %llu, required size %zd\n", kSelf, path,
      static_cast<unsigned long long>(info.st_size), static_cast<ssize_t>(kFileLockRecordSize));
  return RemoveProblematic(path);
}

int ReadRecord(FileIODescriptor *fd, const char *path, char *text) {
  size_t length = 0;
  const FileIOResult result = FileIO_Read(fd, text, kFileLockRecordSize, &length);
  text[length] = '\0';
  if (result == FILEIO_SUCCESS) return 0;
  if (result != FILEIO_READ_ERROR_EOF) {
    return IsGone(errno) ? ENOENT : Report("FILE: %s read failure on '%s': %s\n", path);
  }
  Log("FILE: %s read length issue on '%s': %zd and %zd\n", kSelf, path,
      static_cast<ssize_t>(length), static_cast<ssize_t>(kFileLockRecordSize));
  return EIO;
}

}  // namespace

void FileLockFormatRecord(const FileLockRequest &request, char (&out)[kFileLockRecordSize]) {
  memset(out, 0, sizeof out);
  Str_Sprintf(out, sizeof out, "%s %s %u %s %llu lc=%s", request.me.machineID,
              request.me.executionID, request.me.number, request.me.lockType,
              static_cast<unsigned long long>(request.startTime), request.me.payload);
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
  ReadOnlyFile file;
  // Neither a link to somebody's secret is read, nor does a FIFO make anybody wait.
  if (FileIOOpenUnlocked(file.Get(), path.get(),
                         FILEIO_ACCESS_READ | FILEIO_FLAG_NOFOLLOW | FILEIO_FLAG_NONBLOCK,
                         FILEIO_OPEN, 0444) != FILEIO_SUCCESS) {
    if (IsGone(errno)) return ENOENT;
    if (errno == ELOOP) return RemoveProblematic(path.get());
    return Report("FILE: %s open failure on '%s': %s\n", path.get());
  }
  bool onlyName = true;
  int error = CheckFile(*file.Get(), path.get(), &onlyName);
  if (error == 0) error = ReadRecord(file.Get(), path.get(), buffer->text);
  if (error != 0) return error;
  if (!FileLockParseRecord(buffer, values)) {
    return RemoveProblematic(path.get(), onlyName ? buffer : nullptr);
  }
  values->memberName = name;
  return 0;
}
