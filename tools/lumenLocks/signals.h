// signals.h -- what signals do to the tool, and how COMMAND gets them.
//
//   While the tool waits for the lock, a signal that would end it makes Descriptor() readable: the
//     caller takes its entry back, and then ends by that signal.
//   While COMMAND runs, the terminal's signals are left to COMMAND, which gets them from the terminal;
//     others are passed on.
//   COMMAND starts with the same signals ignored and blocked as the tool did.
//
// One object at a time, in a program of one thread.
#pragma once

#include <sys/types.h>

#include <csignal>

class Signals {
 public:
  Signals();  // from now on they end the wait; exits if there is no pipe for that
  Signals(const Signals &) = delete;
  Signals &operator=(const Signals &) = delete;
  ~Signals() = default;

  // Readable once a signal has come.
  int Descriptor() const;

  // Blocks signals from now on.  Returns one that has come before, or 0.
  int Hold();

  // In a child, before exec: restores what the tool was started with.
  void Restore() const;

  // From now on, signals are passed on to `child`, and so are those that came while they were blocked.
  void PassTo(pid_t child);

  // Ends the process as the signal would have if it had not been caught.
  [[noreturn]] static void EndBy(int number);
};
