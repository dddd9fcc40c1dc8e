// trace.h -- the opener under strace(1), which shows its system calls and makes them fail.
#pragma once

#include "tests/support/product.h"

inline const std::string kTracePath = "/run/trace";

// The name of a system call, and its number among those of its name.
using Position = std::pair<std::string, int>;

struct Call {
  std::string argument;  // the first one
  int absolute;          // its number among all calls of its name in the process
};

// The calls of one process, as strace writes them, from the first record on.  Those of staging, from
// the look at the folder of the install root to the next change of identity, stand apart.
struct Trace {
  std::map<Position, Call> calls;  // numbered from the first record on, without those of staging
  std::vector<Position> order;
  std::vector<Position> staging;  // numbered in the process from its beginning

  explicit Trace(const std::string &text);
};

// The opener under strace with these options; it delivers a file that holds "traced".
Launch Traced(const std::vector<std::string> &options = {});

// The same with one failing call, whose number is counted in its process; strace's own syntax goes,
// "3" or "3+".  A fault that does not come fails the test.
Outcome OutcomeWithFault(const std::string &call, const std::string &number,
                         const std::string &error, std::vector<std::string> options = {});

// The opener, and its children, stopped after each call named `call` with `path`: by SIGSTOP from root,
// which they cannot be shielded from.
class StoppedOpener {
  std::string tracePath_;
  Process process_;
  size_t continued_ = 0;

 public:
  StoppedOpener(const std::string &call, const std::string &path);
  // The processes stopped so far, in turn.
  std::vector<pid_t> Stops() const;
  // Waits for the next stop.
  bool AwaitStop() const;
  void Continue();
  // Does not let it stay stopped again; what becomes of it.
  Outcome ContinueToEnd();
};
