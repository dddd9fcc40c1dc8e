// lumenLocks.cpp -- shows who stands in the queue of a portable lock, and runs commands under one;
// see lumen-locks.1.

#include <fcntl.h>
#include <getopt.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "lib/file/lock/fileLockInt.h"
#include "lib/public/fileLock.h"
#include "lib/public/heap.h"
#include "lib/public/log.h"
#include "lib/public/msgList.h"

extern char **environ;

namespace fs = std::filesystem;

namespace {

enum Status {
  kOk = 0,
  kFailed = 1,
  kUsage = 2,
  kInUse = 3,
  kTimedOut = 75,  // EX_TEMPFAIL of sysexits
  kNotExecutable = 126,
  kNotFound = 127,
  kSignalBase = 128,
};

constexpr char kUsageText[] =
    "usage: lumen-locks show FILE\n"
    "       lumen-locks run [--shared] [--wait SECONDS] FILE COMMAND [ARGUMENT...]\n"
    "       lumen-locks --help\n"
    "\n"
    "  show  print who holds the portable lock of FILE, who waits for it, and what is left of "
    "others\n"
    "  run   run COMMAND while holding the lock: an exclusive one, or with --shared a shared one;\n"
    "        give up when it cannot be had within SECONDS (0: at once; without --wait: never)\n"
    "\n"
    "Exit status of show: 0 nobody is there, 3 somebody is, 1 failed, 2 wrong usage.\n"
    "Of run: that of COMMAND, 128 and the number of the signal that ended it, 75 the time was up,\n"
    "126 or 127 COMMAND cannot be run or found, 1 failed, 2 wrong usage.\n";

int Complain(const std::string &what, int status) {
  fprintf(stderr, "lumen-locks: %s\n", what.c_str());
  return status;
}

// ---- show ----------------------------------------------------------------------------------------

// One entry of the lock directory.
struct Entry {
  std::string name;
  int64_t ageSeconds = 0;
  bool isMember = false;
  std::string problem;  // why it is no record
  std::string machine, execution, type;
  uint32_t number = 0;
  std::string state;
};

// For terminals: anybody may have written it.
std::string Printable(std::string text) {
  std::ranges::replace_if(
      text, [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
  return text;
}

void ReadRecord(const std::string &path, Entry *entry) {
  FileLockRecord record;
  FileLockMember member;
  std::error_code none;
  if (!fs::is_regular_file(fs::symlink_status(path, none))) {
    entry->problem = "no file";
    return;
  }
  std::ifstream in(path, std::ios::binary);
  std::string bytes(kFileLockRecordSize + 1, '\0');
  in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (in.gcount() != static_cast<std::streamsize>(kFileLockRecordSize)) {
    entry->problem = "wrong size";
    return;
  }
  memcpy(record.text, bytes.c_str(), kFileLockRecordSize + 1);
  if (!FileLockParseRecord(&record, &member)) {
    entry->problem = "no record";
    return;
  }
  entry->machine = member.machineID;
  entry->execution = member.executionID;
  entry->type = member.lockType;
  entry->number = member.number;
}

std::vector<Entry> ReadEntries(const std::string &lockDir) {
  std::vector<Entry> entries;
  for (const fs::directory_entry &file : fs::directory_iterator(lockDir)) {
    Entry entry;
    entry.name = file.path().filename();
    struct stat info;
    if (lstat(file.path().c_str(), &info) != 0) continue;  // has left
    entry.ageSeconds = std::max<int64_t>(0, time(nullptr) - info.st_mtime);
    if (!FileLockIsEntryName(entry.name.c_str())) {
      entry.problem = "foreign";
    } else if (entry.name[0] == kFileLockMember) {
      ReadRecord(file.path(), &entry);
      entry.isMember = entry.problem.empty();
    } else {
      entry.problem = entry.name[0] == kFileLockChoosing ? "enters" : "writes its record";
    }
    entries.push_back(entry);
  }
  std::ranges::sort(entries, {},
                    [](const Entry &e) { return std::tuple(!e.isMember, e.number, e.name); });
  return entries;
}

// In the order of the queue: the first holds, and so do shared ones that only shared ones precede.
void FindStates(std::vector<Entry> *entries) {
  bool first = true;
  bool onlyShared = true;
  for (Entry &entry : *entries) {
    if (!entry.isMember) {
      entry.state = entry.problem;
      continue;
    }
    if (OldMachineIDMatch(FileLockMachineID(), entry.machine.c_str()) &&
        !FileLockValidExecutionID(entry.execution.c_str())) {
      entry.state = "stale";
      continue;
    }
    onlyShared = onlyShared && entry.type == kFileLockShared;
    entry.state = first || onlyShared ? "holds" : "waits";
    first = false;
  }
}

int Show(const std::string &file) {
  std::vector<Entry> entries;
  try {
    entries = ReadEntries(file + kFileLockSuffix);
  } catch (const fs::filesystem_error &error) {
    if (error.code() == std::errc::no_such_file_or_directory) return kOk;
    return Complain(file + kFileLockSuffix + ": " + error.code().message(), kFailed);
  }
  FindStates(&entries);
  if (entries.empty()) return kOk;
  printf("%-12s %-18s %-4s %10s %9s  %-28s %s\n", "ENTRY", "STATE", "TYPE", "NUMBER", "AGE/s",
         "PROCESS", "MACHINE");
  for (const Entry &entry : entries) {
    const bool here =
        entry.isMember && OldMachineIDMatch(FileLockMachineID(), entry.machine.c_str());
    printf("%-12s %-18s %-4s %10s %9lld  %-28s %s\n", Printable(entry.name).c_str(),
           entry.state.c_str(), entry.isMember ? entry.type.c_str() : "-",
           entry.isMember ? std::to_string(entry.number).c_str() : "-",
           static_cast<long long>(entry.ageSeconds),
           entry.isMember ? Printable(entry.execution).c_str() : "-",
           here             ? "this one"
           : entry.isMember ? Printable(entry.machine).c_str()
                            : "-");
  }
  return kInUse;
}

// ---- run -----------------------------------------------------------------------------------------

std::atomic<pid_t> child{0};

void PassOn(int signal) {
  if (child > 0) kill(child, signal);
}

// Starts COMMAND with the signals as they were before.  0, or the errno.
int Start(char **command, const sigset_t &mask, pid_t *pid) {
  posix_spawnattr_t attributes;
  sigset_t defaults;
  sigemptyset(&defaults);
  for (const int number : {SIGINT, SIGQUIT}) sigaddset(&defaults, number);
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setsigmask(&attributes, &mask);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  const int error = posix_spawnp(pid, command[0], nullptr, &attributes, command, environ);
  posix_spawnattr_destroy(&attributes);
  return error;
}

// Waits for COMMAND; what is meant for both, such as the terminal's signals, is up to COMMAND.
int RunCommand(char **command) {
  for (const int number : {SIGINT, SIGQUIT}) signal(number, SIG_IGN);
  // What comes before there is somebody to pass it on to waits.
  sigset_t passedOn, before;
  sigemptyset(&passedOn);
  for (const int number : {SIGTERM, SIGHUP}) sigaddset(&passedOn, number);
  sigprocmask(SIG_BLOCK, &passedOn, &before);
  for (const int number : {SIGTERM, SIGHUP}) signal(number, PassOn);
  pid_t pid = 0;
  const int error = Start(command, before, &pid);
  if (error == 0) child = pid;
  sigprocmask(SIG_SETMASK, &before, nullptr);
  if (error != 0) {
    return Complain(std::string(command[0]) + ": " + strerror(error),
                    error == ENOENT ? kNotFound : kNotExecutable);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  child = 0;
  return WIFSIGNALED(status) ? kSignalBase + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string Text(MsgList *messages) {
  const HeapStr text(MsgList_ToString(messages));
  MsgList_Free(messages);
  std::string line = text == nullptr ? "" : text.get();
  while (line.ends_with('\n')) line.pop_back();
  return line;
}

int Run(const char *file, bool shared, uint32_t waitMs, char **command) {
  int error = 0;
  MsgList *messages = nullptr;
  FileLockToken *const token = FileLock_Lock(file, shared, waitMs, &error, &messages);
  if (token == nullptr) {
    if (error == EAGAIN) {
      MsgList_Free(messages);
      return Complain(std::string(file) + ": the lock is in use", kTimedOut);
    }
    return Complain(std::string(file) + ": " + Text(messages), kFailed);
  }
  const int status = RunCommand(command);
  if (FileLock_Unlock(token, &error, &messages)) return status;
  return Complain(std::string(file) + ": " + Text(messages), kFailed);
}

std::optional<uint32_t> ParseWait(const char *text) {
  char *end = nullptr;
  const double seconds = strtod(text, &end);
  if (end == text || *end != '\0' || !(seconds >= 0) || seconds > 4e6) return std::nullopt;
  return static_cast<uint32_t>(std::llround(seconds * 1000));
}

int Usage(const std::string &what) {
  return Complain(what + "\n" + kUsageText, kUsage);
}

int MainRun(int argc, char **argv) {
  constexpr option kOptions[] = {{"shared", no_argument, nullptr, 's'},
                                 {"wait", required_argument, nullptr, 'w'},
                                 {nullptr, 0, nullptr, 0}};
  bool shared = false;
  uint32_t waitMs = FILELOCK_INFINITE_WAIT;
  for (int c; (c = getopt_long(argc, argv, "+", kOptions, nullptr)) != -1;) {
    const std::optional<uint32_t> wanted = c == 'w' ? ParseWait(optarg) : std::nullopt;
    if (c == '?') return Usage("unknown option, or one without its value");
    if (c == 'w' && !wanted) return Usage("--wait takes seconds, not " + std::string(optarg));
    if (c == 's') shared = true;
    if (wanted) waitMs = *wanted;
  }
  if (argc - optind < 2) return Usage("FILE or COMMAND is missing");
  return Run(argv[optind], shared, waitMs, argv + optind + 1);
}

}  // namespace

int main(int argc, char **argv) {
  const std::string action = argc < 2 ? "" : argv[1];
  if (action == "--help") return fputs(kUsageText, stdout) < 0 ? kFailed : kOk;
  // The library's records are for programs that keep a log; messages say what matters here.
  fcntl(LogOpen("/dev/null"), F_SETFD, FD_CLOEXEC);
  opterr = 0;
  if (action == "show" && argc == 3) return Show(argv[2]);
  if (action == "run") return MainRun(argc - 1, argv + 1);
  return Usage(action.empty() ? "nothing to do" : "cannot " + action + " that");
}
