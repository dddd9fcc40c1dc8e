// entries.cpp -- the entries of a lock directory, read without changing anything.
//
// Invariants: any user may have put anything into the directory, and an operator may look at it as
//             root.  So links are not followed, only regular files are read, and no control characters
//             are printed.
// Tests: tests/system/lumenLocks_test

#include "tools/lumenLocks/entries.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <system_error>
#include <tuple>

#include "lib/file/lock/fileLockInt.h"
#include "lib/public/fd.h"
#include "tools/toolText.h"

namespace fs = std::filesystem;

namespace {

constexpr std::array kStateTexts{"holds",  "waits",   "enters",     "writes its record",
                                 "stale",  "foreign", "wrong size", "no record",
                                 "no file"};
static_assert(kStateTexts.size() == static_cast<size_t>(EntryState::NoFile) + 1);

// NFS clients rename a file that is removed while open to such a name, and remove it when it is closed.
constexpr char kSillyName[] = ".nfs";

constexpr auto kGone = std::errc::no_such_file_or_directory;

// It may be a holder's that this user may not read.
[[noreturn]] void ThrowUnreadable(const fs::path &path) {
  throw std::system_error(errno, std::generic_category(), CleanText(path));
}

// Fills in the fields of a member; the state says why if it is not one.  Nothing when it has left.
std::optional<EntryState> ReadRecord(const fs::path &path, Entry *entry) {
  const Fd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd && (errno == ENOENT || errno == ESTALE)) return std::nullopt;
  if (!fd && (errno == ELOOP || errno == ENXIO || errno == EOPNOTSUPP)) return EntryState::NoFile;
  struct stat info;
  if (!fd || fstat(fd.Get(), &info) != 0) ThrowUnreadable(path);
  if (!S_ISREG(info.st_mode)) return EntryState::NoFile;
  if (info.st_size != off_t{kFileLockRecordSize}) return EntryState::WrongSize;
  FileLockRecord record;
  const ssize_t length = read(fd.Get(), record.text, kFileLockRecordSize);
  if (length < 0) ThrowUnreadable(path);
  if (length != ssize_t{kFileLockRecordSize}) return EntryState::WrongSize;
  record.text[kFileLockRecordSize] = '\0';
  FileLockMember member;
  if (!FileLockParseRecord(&record, &member)) return EntryState::NoRecord;
  entry->isMember = true;
  entry->isHere = OldMachineIDMatch(FileLockMachineID(), member.machineID);
  entry->number = member.number;
  entry->machine = member.machineID;
  entry->execution = member.executionID;
  entry->type = member.lockType;
  const bool mayLive = !entry->isHere || FileLockValidExecutionID(member.executionID);
  return mayLive ? EntryState::Waits : EntryState::Stale;
}

std::optional<EntryState> StateOf(const fs::path &path, Entry *entry) {
  if (!FileLockIsEntryName(entry->name.c_str())) return EntryState::Foreign;
  switch (entry->name[0]) {
    case kFileLockMember:
      return ReadRecord(path, entry);
    case kFileLockChoosing:
      return EntryState::Enters;
    default:
      return EntryState::Writes;
  }
}

// The first member in the queue holds the lock, and so does each shared one with only shared ones before
// it.
void FindHolders(std::vector<Entry> *entries) {
  bool first = true;
  bool onlyShared = true;
  for (Entry &entry : *entries) {
    if (entry.state != EntryState::Waits) continue;
    onlyShared = onlyShared && entry.type == kFileLockShared;
    if (first || onlyShared) entry.state = EntryState::Holds;
    first = false;
  }
}

}  // namespace

const char *EntryState_Text(EntryState state) {
  return kStateTexts[static_cast<size_t>(state)];
}

std::vector<Entry> ReadEntries(const std::string &file) {
  const std::string lockDir = file + kFileLockSuffix;
  const fs::file_type type = fs::symlink_status(lockDir).type();
  std::vector<Entry> entries;
  if (type == fs::file_type::not_found) return entries;
  if (type != fs::file_type::directory) {
    throw std::system_error(ENOTDIR, std::generic_category(), lockDir);
  }
  std::error_code error;
  fs::directory_iterator at(lockDir, error);
  for (; !error && at != fs::directory_iterator(); at.increment(error)) {
    Entry entry;
    entry.name = at->path().filename();
    if (entry.name.starts_with(kSillyName)) continue;
    struct stat info;
    if (lstat(at->path().c_str(), &info) != 0) continue;  // has left
    entry.ageSeconds = std::max<int64_t>(0, time(nullptr) - info.st_mtime);
    const std::optional<EntryState> state = StateOf(at->path(), &entry);
    if (!state) continue;
    entry.state = *state;
    entries.push_back(entry);
  }
  if (error && error != kGone) throw std::system_error(error, lockDir);
  std::ranges::sort(entries, {},
                    [](const Entry &e) { return std::tuple(!e.isMember, e.number, e.name); });
  FindHolders(&entries);
  return entries;
}

std::string OwnerOf(const Entry &entry) {
  const std::string process = entry.execution.substr(0, entry.execution.find('-'));
  return "process " + CleanText(process) + " of " +
         (entry.isHere ? "this machine" : "the machine " + CleanText(entry.machine));
}
