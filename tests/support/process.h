// process.h -- a program started as some user, with exactly the environment and descriptors asked
// for; and what became of it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "lib/public/fd.h"

struct Launch {
  std::vector<std::string> argv;      // argv[0] is the path
  uid_t user = 0;                     // and group
  std::vector<std::string> env = {};  // "NAME=value"; nothing else is there
  // Last adjustments in the child, as the user, standard output already being the captured one.
  std::function<void()> adjust = [] {};
};

class Process {
  Fd output_;
  pid_t pid_;  // -1 once it has been waited for

 public:
  static constexpr int kTimeoutMs = 30'000;

  explicit Process(const Launch &launch);
  Process(const Process &) = delete;
  Process &operator=(const Process &) = delete;
  // A process that still runs is killed.
  ~Process();

  pid_t Pid() const { return pid_; }
  // Standard output and standard error so far.
  std::string Output() const;
  bool Running() const;
  void Signal(int signal) const;
  // The exit status, or 128 and the number of the signal that ended it.  A process that does not
  // end within kTimeoutMs is a failure of the test, and killed.
  int Wait();
};

// What a program writes, run to its end.
std::string OutputOf(const std::vector<std::string> &argv);

// Throws std::system_error for errno, unless `ok`.
void Check(bool ok, const char *call);

// Makes this process the user's for good, without other groups.
void BecomeUser(uid_t user);

// Waits until `condition` holds, looking again and again; false when it never does within
// Process::kTimeoutMs.
bool Eventually(const std::function<bool()> &condition);

// A pipe that programs do not inherit unless it is dup2'ed.
struct Pipe {
  Fd read;
  Fd write;
  Pipe();
};

// How many descriptors this process has.
size_t OpenDescriptors();

// What a process has open, by number: a path, or "socket", "pipe" and the like.
std::map<int, std::string> FilesOf(pid_t pid);

// Tells whether something happens to files or folders: IN_ACCESS, IN_OPEN and the like.
class Watch {
  Fd events_;

 public:
  Watch(const std::vector<std::string> &paths, uint32_t what);
  // Whether anything has happened; it is told once.
  bool Seen() const;
  // The same, before long.
  bool Await() const {
    return Eventually([this] { return Seen(); });
  }
};
