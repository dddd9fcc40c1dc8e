// clean.cpp -- removes what the dead have left in a lock directory.
//
// Idea: whoever takes the lock removes that on the way, by the rules of docs/lock-format.md, and
//       needs no second judge here: this queues up and leaves again at once.  Where nothing is dead, it
//       stays away, so as not to be in the way of others.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "lib/public/fileLock.h"
#include "tools/lumenLocks/entries.h"
#include "tools/lumenLocks/lockTool.h"

namespace {

constexpr option kOptions[] = {{"help", no_argument, nullptr, 'h'}, {nullptr, 0, nullptr, 0}};

// A chooser that is as old as that goes at once, without 8 seconds of watching.
constexpr int64_t kOldChooserSeconds = 10;

bool MayGo(const Entry &entry) {
  const bool chooses = entry.state == EntryState::Enters || entry.state == EntryState::Writes;
  return entry.IsDead() || (chooses && entry.ageSeconds >= kOldChooserSeconds);
}

// Errno-style.
int PassThroughQueue(const std::string &file) {
  int error = 0;
  FileLockToken *const token =
      FileLock_Lock(file.c_str(), false, FILELOCK_TRYLOCK_WAIT, &error, nullptr);
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
    printf("removed %s: %s%s\n", Printable(entry.name).c_str(), EntryState_Text(entry.state),
           owner.c_str());
  }
  return error == 0 ? kOk : Complain(file + ": " + strerror(error));
}

}  // namespace

int MainClean(int argc, char **argv) {
  const int c = NextOption(argc, argv, kOptions);
  if (c != -1) return c == 'h' ? PrintHelp() : kFailed;
  if (argc - optind != 1) return WrongUsage("clean takes one FILE");
  if (!IsLockable(argv[optind])) return kFailed;
  try {
    return Clean(argv[optind]);
  } catch (const std::system_error &error) {
    return Complain(error.what());
  }
}
