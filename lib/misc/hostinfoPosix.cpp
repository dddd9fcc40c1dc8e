// hostinfoPosix.cpp -- starting a daemon.
//
// Idea:   the classic double fork.  The first child resets what exec would carry over (timers,
//         signal actions, descriptors), makes the session and forks again, so that the daemon is no
//         session leader and no child of the caller.  The second child becomes the daemon.
// Report: a pipe whose write end is close-on-exec.  Whatever fails after the first fork sends its
//         errno through it; exec closes it, and the caller reads end of file.
// Holds:  after the first fork nothing is allocated and no string is converted; all that the
//         children need stands in the Plan.  The error pipe and the PID file are descriptors above
//         2, because 0 to 2 are replaced in the daemon.
// Tests:  tests/unit/daemonize_test.cpp

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "codeset.h"
#include "fatal.h"
#include "fd.h"
#include "heap.h"
#include "hostinfo.h"
#include "log.h"
#include "platform/process.h"
#include "str.h"

namespace {

constexpr char kWho[] = "Hostinfo_Daemonize";

constinit HostinfoPreExecHook *preExecHook = nullptr;

// ---- what the children need -----------------------------------------------------------------

// A null-terminated argument vector in the local encoding.
class LocalArgs {
  HeapArray<char *> list_;
  size_t count_ = 0;

 public:
  LocalArgs() = default;
  LocalArgs(const LocalArgs &) = delete;
  LocalArgs &operator=(const LocalArgs &) = delete;
  ~LocalArgs() {
    for (size_t i = 0; i < count_; i++) HeapStr(list_[i]).reset();
  }

  [[nodiscard]] bool Convert(const char *const argv[]) {
    size_t length = 0;
    while (argv[length] != nullptr) length++;
    list_ = Heap_Array<char *>(length + 1);
    if (list_ == nullptr) Fatal_MemAlloc();
    for (; count_ < length; count_++) {
      if (!CodeSet_Utf8ToCurrent(argv[count_], strlen(argv[count_]), &list_[count_], nullptr)) {
        return false;
      }
    }
    list_[length] = nullptr;
    return true;
  }
  char *const *Get() const { return list_.get(); }
};

struct Plan {
  const char *path = nullptr;     // as given, for messages
  const char *pidPath = nullptr;  // null for none
  int flags = 0;
  HeapStr localPath;
  LocalArgs args;
  Fd pidFile;
  Fd errorWrite;
  HeapArray<int> keep;
  size_t numKeep = 0;

  bool Has(int flag) const { return (flags & flag) != 0; }
};

// Gives `fd` a number above 2, if it has none; its close-on-exec flag is clear then.
bool LiftAboveStdio(Fd *fd) {
  if (fd->Get() > STDERR_FILENO) return true;
  const int lifted = fcntl(fd->Get(), F_DUPFD, STDERR_FILENO + 1);
  if (lifted < 0) return false;
  fd->Reset(lifted);
  return true;
}

// ---- the children ---------------------------------------------------------------------------

void ResetTimers() {
  constexpr int kTimers[] = {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF};
  const itimerval disarmed = {};
  for (const int timer : kTimers) setitimer(timer, &disarmed, nullptr);
}

void SetAction(int number, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigfillset(&action.sa_mask);
  sigaction(number, &action, nullptr);
}

// Some numbers cannot be set, on either host; they have the default action anyway.
void ResetSignals() {
  for (int number = 1; number <= NSIG; number++) SetAction(number, SIG_DFL);
}

void RaiseAddressSpaceLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_AS, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_AS, &limit);
}

void ResetProcess(const int *keep, size_t count) {
  ResetTimers();
  ResetSignals();
  Platform_CloseDescriptorsExcept(keep, count);
  RaiseAddressSpaceLimit();
}

void PointAtDevNull(int mode, int first, int last) {
  const int null = open("/dev/null", mode);
  if (null < 0) return;
  for (int fd = first; fd <= last; fd++) dup2(null, fd);
  if (null > STDERR_FILENO) close(null);
}

// 0, or the errno of the step that failed.
int WritePidFile(Plan *plan) {
  const int fd = plan->pidFile.Get();
  char text[32];
  const int length = Str_Snprintf(text, sizeof text, "%lld\n", static_cast<long long>(getpid()));
  if (length < 0) return EINVAL;
  if (ftruncate(fd, 0) != 0) {
    const int error = errno;
    Warning("%s: Couldn't truncate path [%s], error %d.\n", kWho, plan->pidPath, error);
    return error;
  }
  const ssize_t written = write(fd, text, static_cast<size_t>(length));
  if (written != length) {
    const int error = written < 0 ? errno : ENOSPC;
    Warning("%s: Couldn't write PID to path [%s], error %d.\n", kWho, plan->pidPath, error);
    return error;
  }
  if (fsync(fd) != 0) {
    const int error = errno;
    Warning("%s: Couldn't flush PID to path [%s], error %d.\n", kWho, plan->pidPath, error);
    return error;
  }
  // Closing gives the lock up only when the caller's copy is closed, too; with the flag the copy
  // here stays open and goes through exec.
  if (!plan->Has(HOSTINFO_DAEMONIZE_LOCKPID)) plan->pidFile.Reset();
  return 0;
}

// Returns only if something failed, with its errno.
int BecomeDaemon(Plan *plan) {
  if (!plan->Has(HOSTINFO_DAEMONIZE_NOCHDIR) && chdir("/") != 0) {
    const int error = errno;
    Warning("%s: Couldn't chdir to /, error %u.\n", kWho, static_cast<unsigned>(error));
    return error;
  }
  if (!plan->Has(HOSTINFO_DAEMONIZE_NOCLOSE)) {
    PointAtDevNull(O_RDONLY, STDIN_FILENO, STDIN_FILENO);
    PointAtDevNull(O_WRONLY, STDOUT_FILENO, STDERR_FILENO);
  }
  if (plan->pidFile) {
    const int error = WritePidFile(plan);
    if (error != 0) return error;
  }
  if (preExecHook != nullptr && !preExecHook()) {
    const int error = errno != 0 ? errno : EINVAL;
    Warning("%s: Couldn't prepare for exec of %s, error %d.\n", kWho, plan->path, error);
    return error;
  }
  SetAction(SIGPIPE, SIG_DFL);  // as the daemon is to have it
  if (execv(plan->localPath.get(), plan->args.Get()) == -1) {
    const int error = errno;
    SetAction(SIGPIPE, SIG_IGN);
    Warning("%s: Couldn't exec %s, error %d.\n", kWho, plan->path, error);
    return error;
  }
  Fatal_NotReached("lib/misc/hostinfoPosix", 3250);
}

// What is logged here may go to a pipe that nobody reads any more.  Dying of that would lose the
// report, and the caller would take the silence for success.
[[noreturn]] void SecondChild(Plan *plan) {
  SetAction(SIGPIPE, SIG_IGN);
  const int error = BecomeDaemon(plan);
  if (write(plan->errorWrite.Get(), &error, sizeof error) != sizeof error) {
    Warning("%s: Couldn't write to parent pipe: %u, original error: %u.\n", kWho,
            static_cast<unsigned>(errno), static_cast<unsigned>(error));
  }
  _exit(EXIT_FAILURE);
}

[[noreturn]] void FirstChild(Plan *plan) {
  ResetProcess(plan->keep.get(), plan->numKeep);
  plan->keep.reset();
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_UNBLOCK, &all, nullptr);

  if (!plan->Has(HOSTINFO_DAEMONIZE_NOCLOSE) && setsid() < 0) {
    Warning("%s: Couldn't create new session, error %d.\n", kWho, errno);
    _exit(EXIT_FAILURE);
  }
  const pid_t child = fork();
  if (child == 0) SecondChild(plan);
  if (child < 0) {
    Warning("%s: Couldn't fork second child, error %d.\n", kWho, errno);
    _exit(EXIT_FAILURE);
  }
  _exit(EXIT_SUCCESS);
}

// ---- the caller -----------------------------------------------------------------------------
//
// These procedures return 0 or the errno that the caller of Hostinfo_Daemonize is to see.

// Opens the PID file and, if asked, locks it.
int OpenPidFile(Plan *plan) {
  plan->pidFile.Reset(open(plan->pidPath, O_WRONLY | O_CREAT, 0644));
  if (!plan->pidFile || !LiftAboveStdio(&plan->pidFile)) {
    const int error = errno;
    Warning("%s: Couldn't open PID path [%s], error %u.\n", kWho, plan->pidPath,
            static_cast<unsigned>(error));
    return error;
  }
  if (plan->Has(HOSTINFO_DAEMONIZE_LOCKPID) && flock(plan->pidFile.Get(), LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    Warning("%s: Lock held on PID path [%s], error %u, not daemonizing.\n", kWho, plan->pidPath,
            static_cast<unsigned>(error));
    return error;
  }
  return 0;
}

// Makes the error pipe and puts its write end, which exec closes, into the plan.
int OpenErrorPipe(Plan *plan, Fd *errorRead) {
  int ends[2];
  bool ok = pipe(ends) == 0;
  if (ok) {
    errorRead->Reset(ends[0]);
    plan->errorWrite.Reset(ends[1]);
    ok = LiftAboveStdio(errorRead) && LiftAboveStdio(&plan->errorWrite);
  }
  if (!ok) {
    const int error = errno;
    Warning("%s: Couldn't create pipe, error %u.\n", kWho, static_cast<unsigned>(error));
    return error;
  }
  return 0;
}

int FillKeepList(Plan *plan, const int *keepFds, size_t numKeepFds) {
  plan->keep = Heap_Array<int>(numKeepFds + 2);
  if (plan->keep == nullptr) {
    const int error = errno;
    Warning("%s: Couldn't allocate memory, error %u.\n", kWho, static_cast<unsigned>(error));
    return error;
  }
  for (size_t i = 0; i < numKeepFds; i++) plan->keep[i] = keepFds[i];
  plan->numKeep = numKeepFds;
  plan->keep[plan->numKeep++] = plan->errorWrite.Get();
  if (plan->pidFile) plan->keep[plan->numKeep++] = plan->pidFile.Get();
  return 0;
}

int SetCloseOnExec(int fd) {
  if (fcntl(fd, F_SETFD, FD_CLOEXEC) == 0) return 0;
  const int error = errno;
  Warning("%s: Couldn't set close-on-exec for fd %d, error %u.\n", kWho, fd,
          static_cast<unsigned>(error));
  return error;
}

int ConvertStrings(Plan *plan, const char *const argv[]) {
  char *localPath;
  if (!CodeSet_Utf8ToCurrent(plan->path, strlen(plan->path), &localPath, nullptr)) {
    Warning("%s: Couldn't convert path [%s] to default encoding.\n", kWho, plan->path);
    return EINVAL;
  }
  plan->localPath.reset(localPath);
  if (!plan->args.Convert(argv)) {
    Warning("%s: Couldn't convert arguments to default encoding.\n", kWho);
    return EINVAL;
  }
  return 0;
}

// While it stands children leave a status.  An ignored SIGCHLD, which exec passes on from whoever
// started this program, would throw away the only report of what fails in the first child.
class ChildStatusKept {
  struct sigaction before_;
  bool changed_;

 public:
  ChildStatusKept() {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    changed_ = sigaction(SIGCHLD, nullptr, &before_) == 0 &&
               (before_.sa_handler == SIG_IGN || (before_.sa_flags & SA_NOCLDWAIT) != 0) &&
               sigaction(SIGCHLD, &action, nullptr) == 0;
  }
  ChildStatusKept(const ChildStatusKept &) = delete;
  ChildStatusKept &operator=(const ChildStatusKept &) = delete;
  ~ChildStatusKept() {
    const ErrnoKeeper keeper;
    if (changed_) sigaction(SIGCHLD, &before_, nullptr);
  }
};

// Without a status -- somebody else waits for all children -- the error pipe has the last word.
int AwaitFirstChild(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return 0;
  }
  if (WIFSIGNALED(status)) {
    Warning("%s: Child %d exited with signal %d.\n", kWho, child, WTERMSIG(status));
    return EINVAL;
  }
  if (WEXITSTATUS(status) != EXIT_SUCCESS) {
    Warning("%s: Child %d exited with error %d.\n", kWho, child, WEXITSTATUS(status));
    return EINVAL;
  }
  return 0;
}

// Only a positive report of the child is a failure; a pipe that cannot be read is not.
int ReadReport(int errorRead, const char *path) {
  int error = EINVAL;
  ssize_t got;
  do {
    got = read(errorRead, &error, sizeof error);
  } while (got < 0 && errno == EINTR);
  if (got <= 0) return 0;
  Warning("%s: Child could not exec %s, read %d, error %u.\n", kWho, path, static_cast<int>(got),
          static_cast<unsigned>(error));
  return error;
}

int StartDaemon(Plan *plan, const char *const argv[], const int *keepFds, size_t numKeepFds) {
  Fd errorRead;
  int error = OpenErrorPipe(plan, &errorRead);
  if (error == 0) error = FillKeepList(plan, keepFds, numKeepFds);
  if (error == 0) error = SetCloseOnExec(plan->errorWrite.Get());
  if (error == 0) error = ConvertStrings(plan, argv);
  if (error != 0) return error;

  const ChildStatusKept status;
  const pid_t child = fork();
  if (child == 0) FirstChild(plan);
  if (child < 0) {
    error = errno;
    Warning("%s: Couldn't fork first child, error %u.\n", kWho, static_cast<unsigned>(error));
    return error;
  }
  plan->errorWrite.Reset();
  error = AwaitFirstChild(child);
  return error != 0 ? error : ReadReport(errorRead.Get(), plan->path);
}

void RemovePidFile(const char *pidPath) {
  if (unlink(pidPath) == 0) return;
  Warning("%s: Unable to unlink %s: %u\n", kWho, pidPath, static_cast<unsigned>(errno));
}

}  // namespace

void Hostinfo_SetPreExecHook(HostinfoPreExecHook *hook) {
  preExecHook = hook;
}

bool Hostinfo_Daemonize(const char *path, const char *const argv[], int flags, const char *pidPath,
                        const int *keepFds, size_t numKeepFds) {
  Plan plan;
  plan.path = path;
  plan.pidPath = pidPath;
  plan.flags = flags;
  int error = pidPath == nullptr ? 0 : OpenPidFile(&plan);
  if (error == 0) {
    error = StartDaemon(&plan, argv, keepFds, numKeepFds);
    if (error != 0 && pidPath != nullptr) RemovePidFile(pidPath);
  }
  if (error == 0 && plan.Has(HOSTINFO_DAEMONIZE_EXIT)) _exit(EXIT_SUCCESS);
  if (error == 0) return true;
  errno = error;  // and the plan's destructors keep it
  return false;
}
