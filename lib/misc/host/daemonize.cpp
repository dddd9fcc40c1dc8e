// daemonize.cpp -- starting a daemon.
//
// Idea:       the classic double fork.  The first child resets what exec would carry over (timers, signal
//             actions, descriptors), creates the session and forks again, so that the daemon is neither
//             a session leader nor a child of the caller.  The second child becomes the daemon.
// Report:     the first child reports by its exit status.  The second child reports through a pipe whose
//             write end is close-on-exec: the errno of the step that failed, or 0 right before exec,
//             followed by the errno of exec if that fails.  The caller reads up to the end of file, so a
//             child that is killed on the way is noticed.  Only a child killed inside exec counts as a
//             success: it looks like a daemon that was killed right after its start.
// Invariants: after the first fork nothing is allocated and no string is converted; the Plan has all that
//             the children need.  The error pipe and the PID file are above 2, because the daemon's 0 to
//             2 are replaced.
// Order:      as in time: the caller prepares, the first child, the second child, the caller waits.
// Tests:      tests/unit/daemonize_test.cpp, tests/system/caller_test.cpp

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "lib/public/codeset.h"
#include "lib/public/fatal.h"
#include "lib/public/fd.h"
#include "lib/public/heap.h"
#include "lib/public/hostinfo.h"
#include "lib/public/log.h"
#include "lib/public/str.h"
#include "platform/process.h"

namespace {

constexpr char kSelf[] = "Hostinfo_Daemonize";
constinit HostinfoPreExecHook *preExecHook = nullptr;

// Logs `format` with the name of the procedure, `args` and errno, in this order.  Returns that errno.
template <typename... Args>
int Failed(const char *format, Args... args) {
  const int error = errno;
  Warning(format, kSelf, args..., error);
  return error;
}

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
  Fd pidFile;  // while the caller has it open, a failure removes the file
  Fd errorRead;
  Fd errorWrite;
  HeapArray<int> keep;
  size_t numKeep = 0;

  bool Has(int flag) const { return (flags & flag) != 0; }
};

// ---- the caller prepares --------------------------------------------------------------------
//
// A result of type int is 0, or the errno for the caller of Hostinfo_Daemonize.

// Moves `fd` to a number above 2 if it is not there yet; then its close-on-exec flag is clear.
bool LiftAboveStdio(Fd *fd) {
  if (fd->Get() > STDERR_FILENO) return true;
  const int lifted = fcntl(fd->Get(), F_DUPFD, STDERR_FILENO + 1);
  if (lifted < 0) {
    if (errno == EINVAL) errno = EMFILE;  // the limit allows no number above 2 at all
    return false;
  }
  fd->Reset(lifted);
  return true;
}

// Opens the PID file and locks it if the flag asks for that.  The lock comes before all else that can
// fail, because only with it a failure may remove the file.  It belongs to the open file, so it stays
// when the number changes.
int OpenPidFile(Plan *plan) {
  const char *const cannotOpen = "%s: Couldn't open PID path [%s], error %u.\n";
  plan->pidFile.Reset(open(plan->pidPath, O_WRONLY | O_CREAT, 0644));
  if (!plan->pidFile) return Failed(cannotOpen, plan->pidPath);
  if (plan->Has(HOSTINFO_DAEMONIZE_LOCKPID) && flock(plan->pidFile.Get(), LOCK_EX | LOCK_NB) != 0) {
    const int error =
        Failed("%s: Lock held on PID path [%s], error %u, not daemonizing.\n", plan->pidPath);
    plan->pidFile.Reset();  // the file may belong to a running daemon
    return error;
  }
  return LiftAboveStdio(&plan->pidFile) ? 0 : Failed(cannotOpen, plan->pidPath);
}

int OpenErrorPipe(Plan *plan) {
  int ends[2];
  bool ok = pipe(ends) == 0;
  if (ok) {
    plan->errorRead.Reset(ends[0]);
    plan->errorWrite.Reset(ends[1]);
    ok = LiftAboveStdio(&plan->errorRead) && LiftAboveStdio(&plan->errorWrite);
  }
  return ok ? 0 : Failed("%s: Couldn't create pipe, error %u.\n");
}

int FillKeepList(Plan *plan, const int *keepFds, size_t numKeepFds) {
  plan->keep = Heap_Array<int>(numKeepFds + 2);
  if (plan->keep == nullptr) return Failed("%s: Couldn't allocate memory, error %u.\n");
  std::copy_n(keepFds, numKeepFds, plan->keep.get());
  plan->numKeep = numKeepFds;
  plan->keep[plan->numKeep++] = plan->errorWrite.Get();
  if (plan->pidFile) plan->keep[plan->numKeep++] = plan->pidFile.Get();
  return 0;
}

int SetCloseOnExec(int fd) {
  const bool ok = fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
  return ok ? 0 : Failed("%s: Couldn't set close-on-exec for fd %d, error %u.\n", fd);
}

int ConvertStrings(Plan *plan, const char *const argv[]) {
  char *localPath;
  if (!CodeSet_Utf8ToCurrent(plan->path, strlen(plan->path), &localPath, nullptr)) {
    Warning("%s: Couldn't convert path [%s] to default encoding.\n", kSelf, plan->path);
    return EINVAL;
  }
  plan->localPath.reset(localPath);
  if (!plan->args.Convert(argv)) {
    Warning("%s: Couldn't convert arguments to default encoding.\n", kSelf);
    return EINVAL;
  }
  return 0;
}

// ---- the first child ------------------------------------------------------------------------

void ResetTimers() {
  constexpr int kTimers[] = {ITIMER_REAL, ITIMER_VIRTUAL, ITIMER_PROF};
  const itimerval disarmed = {};
  for (const int timer : kTimers) setitimer(timer, &disarmed, nullptr);
}

void LetWriteFail(int /*number*/) {}

// Every signal gets its default action, except the two that a failed write raises: when the log has
// lost its reader, or a file has reached the size limit, that must not kill a child before it has
// reported.  These two are caught, not ignored, because exec resets caught signals to their default.
//
// Some signals cannot be set, on either host; they have the default action anyway.
void ResetSignals() {
  struct sigaction action = {};
  action.sa_flags = SA_RESTART;
  sigfillset(&action.sa_mask);
  for (int number = 1; number <= NSIG; number++) {
    action.sa_handler = number == SIGPIPE || number == SIGXFSZ ? LetWriteFail : SIG_DFL;
    sigaction(number, &action, nullptr);
  }
}

void RaiseAddressSpaceLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_AS, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_AS, &limit);
}

// Returns in the second child only.
void FirstChild(Plan *plan) {
  ResetTimers();
  ResetSignals();
  plan->errorRead.Reset();  // even if its number is in the list
  Platform_CloseDescriptorsExcept(plan->keep.get(), plan->numKeep);
  RaiseAddressSpaceLimit();
  plan->keep.reset();
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_UNBLOCK, &all, nullptr);

  if (!plan->Has(HOSTINFO_DAEMONIZE_NOCLOSE) && setsid() < 0) {
    Failed("%s: Couldn't create new session, error %d.\n");
    _exit(EXIT_FAILURE);
  }
  const pid_t child = fork();
  if (child == 0) return;
  if (child < 0) Failed("%s: Couldn't fork second child, error %d.\n");
  _exit(child < 0 ? EXIT_FAILURE : EXIT_SUCCESS);
}

// ---- the second child -----------------------------------------------------------------------
//
// A result of type int is 0, or the errno to report to the caller.

void PointAtDevNull(int mode, int first, int last) {
  const int null = open("/dev/null", mode);
  if (null < 0) return;
  for (int fd = first; fd <= last; fd++) dup2(null, fd);
  if (null > STDERR_FILENO) close(null);
}

int WritePidFile(Plan *plan) {
  const int fd = plan->pidFile.Get();
  char text[32];
  const int length = Str_Snprintf(text, sizeof text, "%lld\n", static_cast<long long>(getpid()));
  if (length < 0) return EINVAL;
  if (ftruncate(fd, 0) != 0) {
    return Failed("%s: Couldn't truncate path [%s], error %d.\n", plan->pidPath);
  }
  const ssize_t written = write(fd, text, static_cast<size_t>(length));
  if (written != length) {
    if (written >= 0) errno = ENOSPC;
    return Failed("%s: Couldn't write PID to path [%s], error %d.\n", plan->pidPath);
  }
  if (fsync(fd) != 0) {
    return Failed("%s: Couldn't flush PID to path [%s], error %d.\n", plan->pidPath);
  }
  // With the flag this copy stays open across exec, and so the lock is kept.
  if (!plan->Has(HOSTINFO_DAEMONIZE_LOCKPID)) plan->pidFile.Reset();
  return 0;
}

int RunHook(const Plan &plan) {
  if (preExecHook == nullptr || preExecHook()) return 0;
  if (errno == 0) errno = EINVAL;  // 0 would report success
  return Failed("%s: Couldn't prepare for exec of %s, error %d.\n", plan.path);
}

int PrepareForExec(Plan *plan) {
  if (!plan->Has(HOSTINFO_DAEMONIZE_NOCHDIR) && chdir("/") != 0) {
    return Failed("%s: Couldn't chdir to /, error %u.\n");
  }
  if (!plan->Has(HOSTINFO_DAEMONIZE_NOCLOSE)) {
    PointAtDevNull(O_RDONLY, STDIN_FILENO, STDIN_FILENO);
    PointAtDevNull(O_WRONLY, STDOUT_FILENO, STDERR_FILENO);
  }
  const int error = plan->pidFile ? WritePidFile(plan) : 0;
  return error != 0 ? error : RunHook(*plan);
}

bool Report(const Plan &plan, int error) {
  if (write(plan.errorWrite.Get(), &error, sizeof error) == sizeof error) return true;
  // The caller was killed, or could not read.  Others may be waiting for the daemon nevertheless.
  if (error == 0 && errno == EPIPE) return true;
  Warning("%s: Couldn't write to parent pipe: %u, original error: %u.\n", kSelf,
          static_cast<unsigned>(errno), static_cast<unsigned>(error));
  return false;
}

// Without a report there is no exec: a caller that waits would take the daemon for a failed start.
[[noreturn]] void SecondChild(Plan *plan) {
  const int error = PrepareForExec(plan);
  if (!Report(*plan, error) || error != 0) _exit(EXIT_FAILURE);
  const int result = execv(plan->localPath.get(), plan->args.Get());
  if (result != -1) Fatal_NotReached("lib/misc/hostinfoPosix", 3250);
  Report(*plan, Failed("%s: Couldn't exec %s, error %d.\n", plan->path));
  _exit(EXIT_FAILURE);
}

// ---- the caller waits -----------------------------------------------------------------------

// Makes sure, for its scope, that children leave an exit status.  When SIGCHLD is ignored, which is
// inherited across exec, the host discards it.
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

// When there is no status to be had, because another thread waits for all children, the error pipe
// decides.
int AwaitFirstChild(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return 0;
  }
  if (WIFSIGNALED(status)) {
    Warning("%s: Child %d exited with signal %d.\n", kSelf, child, WTERMSIG(status));
  } else if (WEXITSTATUS(status) != EXIT_SUCCESS) {
    Warning("%s: Child %d exited with error %d.\n", kSelf, child, WEXITSTATUS(status));
  }
  return status == 0 ? 0 : EINVAL;
}

// Waits for one report.  Returns its size, 0 at end of file, or -1.
ssize_t ReadReport(const Plan &plan, int *error) {
  ssize_t got;
  do {
    *error = EINVAL;
    got = read(plan.errorRead.Get(), error, sizeof *error);
  } while (got < 0 && errno == EINTR);
  return got;
}

// A pipe that cannot be read is no failure: the daemon may well be running.
int AwaitExec(const Plan &plan) {
  int error;
  ssize_t got = ReadReport(plan, &error);
  const bool atExec = got > 0 && error == 0;
  if (atExec) got = ReadReport(plan, &error);
  if (got > 0) {
    Warning("%s: Child could not exec %s, read %d, error %u.\n", kSelf, plan.path,
            static_cast<int>(got), static_cast<unsigned>(error));
    return error;
  }
  if (got == 0 && !atExec) {
    Warning("%s: Child died before it could exec %s.\n", kSelf, plan.path);
    return EINVAL;
  }
  return 0;
}

int StartDaemon(Plan *plan, const char *const argv[], const int *keepFds, size_t numKeepFds) {
  int error = OpenErrorPipe(plan);
  if (error == 0) error = FillKeepList(plan, keepFds, numKeepFds);
  if (error == 0) error = SetCloseOnExec(plan->errorWrite.Get());
  if (error == 0) error = ConvertStrings(plan, argv);
  if (error != 0) return error;

  const ChildStatusKept status;
  const pid_t child = fork();
  if (child == 0) {
    FirstChild(plan);
    SecondChild(plan);
  }
  if (child < 0) return Failed("%s: Couldn't fork first child, error %u.\n");
  plan->errorWrite.Reset();
  error = AwaitFirstChild(child);
  return error != 0 ? error : AwaitExec(*plan);
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
  if (error == 0) error = StartDaemon(&plan, argv, keepFds, numKeepFds);
  if (error != 0 && plan.pidFile && unlink(pidPath) != 0) {
    Failed("%s: Unable to unlink %s: %u\n", pidPath);
  }
  if (error == 0 && plan.Has(HOSTINFO_DAEMONIZE_EXIT)) _exit(EXIT_SUCCESS);
  if (error == 0) return true;
  errno = error;  // kept by the plan's destructor
  return false;
}
