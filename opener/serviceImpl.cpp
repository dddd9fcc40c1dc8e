// serviceImpl.cpp -- getting one descriptor into the service daemon.
//
// Idea:   a loop of passes.  Each pass chooses a side (serviceImplSide.cpp): it connects to the
//         daemon's socket, or, if nobody listens there, listens itself.  An opener that listens starts
//         the daemon, which inherits the listening socket, and connects like any other in its next
//         pass.
// Races:  only the holder of the start lock listens, stages and starts, and its children keep the lock
//         until exec: killing the opener does not admit another one while a child may still exec the
//         staged file.  Openers that arrive in the meantime connect to the first one's socket and
//         wait in its queue for the greeting.  If the first one dies before the daemon runs, its
//         socket is closed; those in the queue see an end of file and start over.
// Format: docs/protocol.md
// Invariants:
//   1. Root only inside ServiceImplWithPrivileges: while choosing the side and while starting the
//      daemon.  The bytes are exchanged as the user; failing to switch identity ends the rendezvous.
//   2. Descriptors are kept in variables that are -1 when empty; ServiceImplClose empties them.  The
//      daemon gets the listening socket and the read end of the status pipe; Hostinfo_Daemonize closes
//      all others, the start lock last, at exec.  Nothing else here calls exec.
//   3. A failed system call is logged once and ends the rendezvous.
//   4. No lock is held during a pause between passes.
//   5. While choosing the side, and on the server side until the daemon has been started, the process is
//      shielded from its user: from signals, and from a log that blocks.  The shield is lowered only
//      after locks and listener have been closed.
// Tests:  tests/system/handoff_test.cpp, faults_test.cpp, crowd_test.cpp, startLock_test.cpp

#include "opener/serviceImpl.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>

#include "lib/public/hostinfo.h"
#include "lib/public/log.h"
#include "lib/public/str.h"
#include "opener/pause.h"
#include "opener/serviceImplSide.h"
#include "opener/serviceImplWire.h"

namespace {

constexpr char kAccepted = '1';

struct {
  ServiceImplPreStartHook preStartHook = nullptr;
} serviceState;

enum class Pass { kFailed, kAgain, kDelivered };

// ---- the server side ------------------------------------------------------------------------

bool RunDaemon(const char *daemonPath, const RendezvousFds &fds, int statusRead) {
  char sockText[11];
  char statusText[11];
  Str_Snprintf(sockText, sizeof sockText, "%d", fds.sock);
  Str_Snprintf(statusText, sizeof statusText, "%d", statusRead);
  const char *const argv[] = {daemonPath, sockText, statusText, nullptr};
  const int keep[] = {fds.sock, statusRead, fds.startLock};

  // PRIV: the daemon is to run as root.
  return ServiceImplWithPrivileges([&] {
    Hostinfo_SetPreExecHook(ServiceImplGiveDaemonItsUser);
    return Hostinfo_Daemonize(daemonPath, argv, 0, nullptr, keep, std::size(keep));
  });
}

// Starts the daemon on the listening socket, and sets fds->statusWrite.
bool ServiceImplDaemonStart(const char *daemonPath, RendezvousFds *fds) {
  int ends[2];
  if (pipe(ends) != 0) {
    Warning("%s: pipe errno %d.\n", "ServiceImplDaemonStart", errno);
    return false;
  }
  fds->statusWrite = ends[1];
  bool ok = RunDaemon(daemonPath, *fds, ends[0]);
  ServiceImplClose(&ends[0], &ok);
  return ok;
}

Pass ServeOnce(const RendezvousPaths &paths, RendezvousFds *fds) {
  // From an earlier pass, whose daemon died before it served this client.
  bool ok = ServiceImplClose(&fds->statusWrite, nullptr);
  ok = ok && (serviceState.preStartHook == nullptr || serviceState.preStartHook());
  ok = ok && ServiceImplDaemonStart(paths.daemonPath, fds);
  // Other openers wait for these, so they are closed before the user may signal this process again.
  // The daemon has its own copy of the socket.
  ServiceImplClose(&fds->startLock, &ok);
  ServiceImplClose(&fds->sock, &ok);
  // PRIV: only root may give the real user id back.
  ok = ServiceImplWithPrivileges(ServiceImplUnshield) && ok;
  return ok ? Pass::kAgain : Pass::kFailed;
}

// ---- the client side ------------------------------------------------------------------------

Pass DeliverOnce(int fd, RendezvousFds *fds) {
  switch (ServiceImplReadOne(fds->sock, &ServiceImplExchangeByte())) {
    case SERVICEIMPL_READ_BYTE:
      break;
    case SERVICEIMPL_READ_EOF:
      // The listener closed before it accepted: find or start another one.
      return ServiceImplClose(&fds->sock, nullptr) ? Pass::kAgain : Pass::kFailed;
    default:
      return Pass::kFailed;
  }
  if (!ServiceImplSendFd(fds->sock, fd)) return Pass::kFailed;
  char reply;
  const bool answered = ServiceImplReadOne(fds->sock, &reply) == SERVICEIMPL_READ_BYTE;
  return answered && reply == kAccepted ? Pass::kDelivered : Pass::kFailed;
}

// ---- the rendezvous -------------------------------------------------------------------------

Pass ServiceImplPass(int fd, const RendezvousPaths &paths, RendezvousFds *fds) {
  switch (ServiceImplPickSockSide(paths, fds)) {
    case ServiceImplSide::kClient:
      return DeliverOnce(fd, fds);
    case ServiceImplSide::kServer:
      return ServeOnce(paths, fds);
    case ServiceImplSide::kBusy:
      return Pass::kAgain;
    case ServiceImplSide::kNone:
      break;
  }
  return Pass::kFailed;
}

// The pauses between passes.  The second pass follows at once: usually it connects to the daemon just
// started, or replaces a service that was stopping.  If a third one is needed, something keeps
// failing; growing pauses keep the loop from consuming the machine.
class Backoff {
  static constexpr long kLongestMs = 1000;

  long ms_ = 0;

 public:
  void Wait() {
    PauseMs(ms_);
    ms_ = std::clamp(2 * ms_, 1L, kLongestMs);
  }
};

bool ServiceImplOpener(int fd, const RendezvousPaths &paths) {
  RendezvousFds fds;
  Backoff backoff;
  Pass pass = ServiceImplPass(fd, paths, &fds);
  while (pass == Pass::kAgain) {
    backoff.Wait();
    pass = ServiceImplPass(fd, paths, &fds);
  }
  bool ok = pass == Pass::kDelivered;
  ServiceImplClose(&fds.statusWrite, &ok);
  ServiceImplClose(&fds.sock, &ok);
  LogRelease();  // in case the shield could not be lowered
  return ok;
}

// The daemon gets the read end and sees an end of file when this process, the only one that has the
// write end, dies.
int ServiceImplShell(const RendezvousPaths &paths) {
  int ends[2];
  if (pipe(ends) != 0) {
    Warning("%s: pipe errno %d.\n", "ServiceImplShell", errno);
    return EXIT_FAILURE;
  }
  bool ok = ServiceImplOpener(ends[0], paths);
  ServiceImplClose(&ends[0], &ok);
  if (!ok) {
    ServiceImplClose(&ends[1], nullptr);
    return EXIT_FAILURE;
  }
  for (;;) sleep(60);
}

// ---- the library's module set-up ------------------------------------------------------------
//
// Other programs of the family read the log level of each module from a file here.  This one reads no
// configuration, so no level can be set.

void SetUpModules() {}

int SetUpModule(const char * /*fileName*/, const char * /*moduleName*/, int /*level*/) {
  return -1;
}

}  // namespace

void ServiceImpl_SetPreStartHook(ServiceImplPreStartHook hook) {
  serviceState.preStartHook = hook;
}

int ServiceImpl_Opener(int argc, char *argv[], int level, const char *lockPath,
                       const char *sockPath, const char *daemonPath) {
  SetUpModules();
  (void)SetUpModule(nullptr, "serviceImpl", level);
  Log("%s: PID %u\n", "ServiceImpl_Opener", static_cast<unsigned>(getpid()));

  const RendezvousPaths paths = {lockPath, sockPath, daemonPath};
  if (argc == 1) return ServiceImplShell(paths);
  if (argc == 2) {
    // Not validated: text that is no number counts as 0, and a closed descriptor fails when sent.
    const int fd = static_cast<int>(strtol(argv[1], nullptr, 10));
    return ServiceImplOpener(fd, paths) ? EXIT_SUCCESS : EXIT_FAILURE;
  }
  Warning("Invalid number of arguments.\n");
  return EXIT_FAILURE;
}
