// signals.h -- what signals do to the tool, and how COMMAND gets them.
//
//   While the tool waits for the lock, a signal that would end it makes Descriptor() readable: the
//     caller takes its entry back, and then ends by that signal.
//   While COMMAND runs, those of the terminal are left to it, which gets them anyway; others are
//     passed on.
//   COMMAND starts with what was ignored, blocked or neither when the tool started.
//
// One object at a time, in a program of one thread.
#pragma once

#include <sys/types.h>

#include <csignal>

class Signals {
 public:
  Signals();  // they end the wait from now on; ends the process when it cannot have a pipe
  Signals(const Signals &) = delete;
  Signals &operator=(const Signals &) = delete;
  ~Signals() = default;

  // Readable as soon as there was a signal.
  int Descriptor() const;

  // From now on, signals are kept back.  Returns one that came before, or 0.
  int Hold();

  // In a child, for exec: all is as it was.
  void Restore() const;

  // From now on, signals are passed on to `child`; also those that were kept back.
  void PassTo(pid_t child);

  // As if it had not been caught.
  [[noreturn]] static void EndBy(int number);
};
