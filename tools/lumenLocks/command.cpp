// command.cpp -- runs COMMAND under the lock.
//
// By fork and exec: posix_spawn cannot make a child ignore what its parent does not, nor tie its life
// to the parent's.

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

// In the child.  Returns the errno of what went wrong.
int Become(char **command, pid_t parent, const Signals &signals) {
  // Whoever wants the lock next takes it as soon as the tool has gone.
  if (!Platform_EndWithParent(parent) && errno == ESRCH) return ESRCH;
  signals.Restore();
  execvp(command[0], command);
  return errno;
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
  if (*child == 0) {
    const int error = Become(command, parent, signals);
    (void)!write(report.Get(), &error, sizeof error);
    _exit(kFailed);
  }
  report.Reset();
  int error = 0;
  ssize_t length;
  do length = read(failure.Get(), &error, sizeof error);
  while (length < 0 && errno == EINTR);
  return length > 0 ? error : 0;
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
  // Its number stays its own until no signal can be passed on to it any more.
  siginfo_t info;
  while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
  }
  signals->Hold();
  return Await(child);
}
