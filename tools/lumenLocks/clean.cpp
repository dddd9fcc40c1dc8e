// clean.cpp -- removes what dead processes have left in a lock directory.
//
// Idea: taking the lock removes dead entries on the way, by the rules of docs/lock-format.md.  Instead
//       of judging entries a second time, this joins the queue and leaves it at once.  If nothing is
//       dead, it does not even join, since a `run --wait 0` at that moment would fail.
// Tests: tests/system/lumenLocks_test

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "lib/public/fileLock.h"
#include "tools/lumenLocks/entries.h"
#include "tools/lumenLocks/lockTool.h"
#include "tools/toolText.h"

namespace {

constexpr option kOptions[] = {{"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};

// The lock discards a chooser of this age without watching it for 8 seconds first.
constexpr int64_t kOldChooserSeconds = 10;

bool MayGo(const Entry &entry) {
  const bool chooses = entry.state == EntryState::Enters || entry.state == EntryState::Writes;
  return entry.IsDead() || (chooses && entry.ageSeconds >= kOldChooserSeconds);
}

// Not 0: without any patience, the lock stops looking at the first entry that is in the way.
constexpr uint32_t kPatienceMs = 1;

// Errno-style.
int PassThroughQueue(const std::string &file) {
  int error = 0;
  FileLockToken *const token = FileLock_Lock(file.c_str(), false, kPatienceMs, &error, nullptr);
  if (token != nullptr) return FileLock_Unlock(token, &error, nullptr) ? 0 : error;
  return error == EAGAIN ? 0 : error;
}

int Clean(const std::string &file) {
  const std::vector<Entry> before = ReadEntries(file);
  if (std::ranges::none_of(before, MayGo)) return kOk;
  const int error = PassThroughQueue(file);
  const std::vector<Entry> after = ReadEntries(file);
  for (const Entry &entry : before) {
    const bool gone = std::ranges::find(after, entry.name, &Entry::name) == after.end();
    if (!MayGo(entry) || !gone) continue;
    const std::string owner = entry.isMember ? ", " + OwnerOf(entry) : "";
    printf("removed %s: %s%s\n", CleanText(entry.name).c_str(), EntryState_Text(entry.state),
           owner.c_str());
  }
  return error == 0 ? kOk : Complain(file + ": " + strerror(error));
}

}  // namespace

int MainClean(int argc, char **argv) {
  const int c = NextOption(argc, argv, kOptions);
  if (c != -1) return c == 'h' ? PrintHelp() : kFailed;
  if (argc - optind != 1) return WrongUsage("clean takes one FILE");
  return IsLockable(argv[optind]) ? Clean(argv[optind]) : kFailed;
}
