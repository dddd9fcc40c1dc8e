// command.cpp -- runs COMMAND under the lock.
//
// By fork and exec: posix_spawn cannot make a child ignore a signal that its parent does not ignore, nor
// end it with its parent.
// Tests: tests/system/lumenLocks_test

#include "tools/lumenLocks/command.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "lib/public/fd.h"
#include "platform/process.h"
#include "tools/lumenLocks/lockTool.h"

namespace {

// In the child: ends with the errno of what went wrong in `report`, if anything does.
[[noreturn]] int Become(char **command, pid_t parent, const Signals &signals, const Fd &report) {
  // The lock is free for others as soon as the tool has died, so COMMAND must not outlive it.
  if (Platform_EndWithParent(parent) || errno != ESRCH) {
    signals.Restore();
    execvp(command[0], command);
  }
  const int error = errno;
  (void)!write(report.Get(), &error, sizeof error);
  _exit(kFailed);
}

// In the parent.  0 once the child has become COMMAND.
int AwaitReport(const Fd &failure, Fd *report) {
  report->Reset();
  int error = 0;
  ssize_t length;
  do length = read(failure.Get(), &error, sizeof error);
  while (length < 0 && errno == EINTR);
  return length > 0 ? error : 0;
}

// 0, or the errno of the failure.
int Start(char **command, const Signals &signals, pid_t *child) {
  int ends[2];
  if (pipe(ends) != 0) return errno;
  const Fd failure(ends[0]);
  Fd report(ends[1]);
  for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);
  const pid_t parent = getpid();
  *child = fork();
  if (*child < 0) return errno;
  return *child == 0 ? Become(command, parent, signals, report) : AwaitReport(failure, &report);
}

int Await(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFSIGNALED(status) ? kSignalBase + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

int RunCommand(char **command, Signals *signals) {
  pid_t child = 0;
  if (const int error = Start(command, *signals, &child); error != 0) {
    if (child > 0) Await(child);
    return Complain(std::string(command[0]) + ": " + strerror(error), child <= 0 ? kFailed
                                                                      : error == ENOENT
                                                                          ? kNotFound
                                                                          : kNotExecutable);
  }
  signals->PassTo(child);
  // Not reaped yet, so that its number is not given to another process while signals are passed on.
  siginfo_t info;
  while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
  signals->Hold();
  return Await(child);
}
