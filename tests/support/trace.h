// trace.h -- runs the opener under strace(1), which shows its system calls and makes them fail.
#pragma once

#include "tests/support/product.h"

inline const std::string kTracePath = "/run/trace";

// The name of a system call, and its number among the calls of that name.
using Position = std::pair<std::string, int>;

// The calls of one process, from the first record in strace's output on.  Those of staging, which begins
// with a look at the install root's parent and ends with the next setresuid, are kept apart: their number
// depends on the bundle.
struct Trace {
  std::vector<Position> order;    // numbered from the first record on, staging not counted
  std::map<Position, int> calls;  // to the number from the beginning of the process
  std::vector<Position> staging;  // numbered from the beginning of the process

  explicit Trace(const std::string &text);
};

// The opener under strace with these options; it delivers a file with the content "traced".
Launch Traced(const std::vector<std::string> &options = {});

// The same with a failing call.  `number` is counted from the beginning of its process, in the syntax of
// strace: "3", or "3+" for that one and all later ones.  The test fails if there is no such call.
Outcome OutcomeWithFault(const std::string &call, const std::string &number,
                         const std::string &error, std::vector<std::string> options = {});

// The opener and its children, stopped after each call named `call` with `path`: by SIGSTOP from root,
// against which no shield helps.
class StoppedOpener {
  std::string tracePath_;
  Process process_;
  size_t continued_ = 0;

 public:
  StoppedOpener(const std::string &call, const std::string &path);
  // The processes stopped so far, in order.
  std::vector<pid_t> Stops() const;
  // Waits for the next stop.
  bool AwaitStop() const;
  void Continue();
  // Continues it after each further stop, until it ends.
  Outcome ContinueToEnd();
};
