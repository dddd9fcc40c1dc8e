// main.cpp -- lumen-locks: shows the queue of a portable lock, runs commands under one, and removes the
// entries of dead processes; see lumen-locks.1.
//
// Parts: run.cpp (taking the lock), signals.cpp and command.cpp (COMMAND and its signals), entries.cpp
//        (reading the queue), show.cpp, clean.cpp.
// Tests: tests/system/lumenLocks_test, tests/system/lockMachines_test

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <system_error>

#include "lib/public/fd.h"
#include "lib/public/log.h"
#include "tools/lumenLocks/lockTool.h"

namespace {

constexpr char kHelp[] =
    "usage: lumen-locks show [-j] FILE\n"
    "       lumen-locks run [OPTION...] FILE COMMAND [ARGUMENT...]\n"
    "       lumen-locks clean FILE\n"
    "       lumen-locks --help | --version\n"
    "\n"
    "  show   print who holds the portable lock of FILE, who waits for it, and what is left of\n"
    "         others\n"
    "    -j, --json                   for programs\n"
    "  run    run COMMAND while holding the lock\n"
    "    -s, --shared                 a shared lock instead of an exclusive one\n"
    "    -w, --wait SECONDS           give up when it cannot be had within that time (0: at once)\n"
    "    -E, --conflict-exit-code N   exit with N then, instead of 75\n"
    "    -v, --verbose                tell how long it took, or who holds the lock\n"
    "  clean  remove what processes of this machine have left when they died\n"
    "\n"
    "Exit status of show: 0 nobody is there, 3 somebody is, 4 only what is left of the dead.\n"
    "Of run: that of COMMAND, 128 and the number of the signal that ended it, 75 the time was up,\n"
    "126 or 127 COMMAND cannot be run or found.  Of all: 125 failed or used in a wrong way.\n";

struct Command {
  std::string_view name;
  int (*main)(int argc, char **argv);
};
constexpr std::array kCommands{
    Command{"show", MainShow},
    Command{"run", MainRun},
    Command{"clean", MainClean},
};

int Dispatch(int argc, char **argv) try {
  if (argc < 2) return WrongUsage("nothing to do");
  const std::string_view word = argv[1];
  if (word == "--help" || word == "-h") return PrintHelp();
  if (word == "--version" || word == "-V") {
    puts("lumen-locks " LUMEN_VERSION);
    return kOk;
  }
  for (const Command &command : kCommands) {
    if (word == command.name) return command.main(argc - 1, argv + 1);
  }
  return WrongUsage("no such command: " + std::string(word));
} catch (const std::system_error &error) {
  return Complain(error.what());
}

// If a standard descriptor is closed, the next file to be opened gets its number: messages would go into
// a file of the lock.  So something is opened in its place that cannot be used, like the closed one: it
// is for the other direction.  COMMAND does not inherit it.
void FillStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    const int direction = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
    if (open("/dev/null", direction | O_CLOEXEC) != fd) exit(kFailed);
  }
}

}  // namespace

int Complain(const std::string &what, int status) {
  fprintf(stderr, "lumen-locks: %s\n", what.c_str());
  return status;
}

int WrongUsage(const std::string &what) {
  return Complain(what + "\nTry 'lumen-locks --help'.");
}

int PrintHelp() {
  fputs(kHelp, stdout);
  return kOk;
}

int NextOption(int argc, char **argv, const option *allowed) {
  std::string shortOptions = "+:";
  for (const option *row = allowed; row->name != nullptr; row++) {
    shortOptions += static_cast<char>(row->val);
    if (row->has_arg == required_argument) shortOptions += ':';
  }
  opterr = 0;
  const int c = getopt_long(argc, argv, shortOptions.c_str(), allowed, nullptr);
  if (c != '?' && c != ':') return c;
  WrongUsage(std::string(argv[optind - 1]) +
             (c == ':' ? " wants a value" : " is no option of " + std::string(argv[0])));
  return '?';
}

bool IsLockable(const std::string &file) {
  const size_t slash = file.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : file.substr(0, slash + 1);
  const std::string name = file.substr(slash + 1);
  struct stat info;
  const char *problem = nullptr;
  if (name.empty() || name == "." || name == "..") {
    problem = "does not end in the name of a file";
  } else if (stat(folder.c_str(), &info) != 0) {
    problem = strerror(errno);
  } else if (name.ends_with(".lck") && (stat(file.c_str(), &info) != 0 || S_ISDIR(info.st_mode))) {
    problem = "is the directory of a lock; give the name of the locked file";
  }
  if (problem != nullptr) Complain(file + ": " + problem);
  return problem == nullptr;
}

int main(int argc, char **argv) {
  FillStandardDescriptors();
  // The library's records are for programs that keep a log; messages say what matters here.
  fcntl(LogOpen("/dev/null"), F_SETFD, FD_CLOEXEC);
  const int status = Dispatch(argc, argv);
  const bool failed = ferror(stdout) != 0;
  if (fclose(stdout) != 0 || failed) {
    return Complain(std::string("standard output: ") + strerror(errno));
  }
  return status;
}
