// process.h -- runs a program as a given user with a given environment, and reports how it ended.
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
  std::vector<std::string> env = {};  // all of it, as "NAME=value"
  // Runs last in the child, as the user, when standard output is already being captured.
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
  // Kills a process that is still running.
  ~Process();

  pid_t Pid() const { return pid_; }
  // Standard output and standard error so far.
  std::string Output() const;
  bool Running() const;
  void Signal(int signal) const;
  // The exit status, or 128 plus the number of the signal that ended it.  A process that does not end
  // within kTimeoutMs is killed, and fails the test.
  int Wait();
};

// The output of a program that must end with status 0.
std::string OutputOf(const std::vector<std::string> &argv);

// Throws std::system_error for errno, unless `ok`.
void Check(bool ok, const char *call);

// Gives this process the user's ids for good, and no supplementary groups.
void BecomeUser(uid_t user);

// Polls `condition` until it is true; false if it is not within Process::kTimeoutMs.
bool Eventually(const std::function<bool()> &condition);

// A close-on-exec pipe.
struct Pipe {
  Fd read;
  Fd write;
  Pipe();
};

// The number of descriptors that this process has open.
size_t OpenDescriptors();

// The open descriptors of a process: for each number a path, or "socket", "pipe" and the like.
std::map<int, std::string> FilesOf(pid_t pid);

// Watches files or folders for inotify(7) events: IN_ACCESS, IN_OPEN and the like.
class Watch {
  Fd events_;

 public:
  Watch(const std::vector<std::string> &paths, uint32_t what);
  // Whether there has been an event; consumes it.
  bool Seen() const;
  // Waits for one.
  bool Await() const {
    return Eventually([this] { return Seen(); });
  }
};
