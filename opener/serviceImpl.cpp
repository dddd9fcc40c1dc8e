// serviceImpl.cpp -- getting one descriptor into the service daemon.
//
// Idea:   a loop of passes.  Each pass takes the lock file, as root, and connects to the daemon's
//         socket; where nobody listens it binds and listens itself instead.  Then it gives up lock
//         and privileges.  The one that listens starts the daemon, which inherits the listening
//         socket, and begins the next pass, in which it connects like anybody else.
// Races:  choosing a side is the only step under the lock, so two openers never both bind.  A
//         second opener that comes while the first one still prepares the daemon connects to the
//         first one's socket and waits in its queue for the greeting.  If the first one dies before
//         the daemon runs, the socket goes with it, and those in the queue see an end of file and
//         begin again.
// Holds:  1. Root only inside ServiceImplWithPrivileges: while the side is chosen and while the
//            daemon is started.  The bytes are exchanged as the user; an identity that cannot be
//            switched ends the rendezvous.
//         2. Descriptors stay in slots (-1: empty) that ServiceImplClose empties.  The daemon gets
//            the listening socket and the status pipe's read end; Hostinfo_Daemonize closes all
//            others, and nothing else here calls exec.
//         3. A failed system call is logged once and fails the rendezvous.
// Format: docs/protocol.md.  Tests: tests/system/

#include "opener/serviceImpl.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "fd.h"
#include "hostinfo.h"
#include "log.h"
#include "opener/serviceImplWire.h"
#include "platform/files.h"
#include "platform/unixSocket.h"
#include "str.h"

namespace {

constexpr char kPickSide[] = "ServiceImplPickSockSide";
constexpr char kAccepted = '1';

struct {
  ServiceImplPreStartHook preStartHook = nullptr;
} serviceState;

// Where the daemon is met.
struct Meeting {
  const char *lockPath;
  const char *sockPath;
  const char *daemonPath;
};

// The descriptors of one rendezvous.  The daemon sees the status pipe's end of file when the
// rendezvous is over.
struct Slots {
  int sock = -1;
  int statusWrite = -1;
};

enum class Side { kNone, kClient, kServer };
enum class Pass { kFailed, kAgain, kDelivered };

// ---- choosing the side ----------------------------------------------------------------------

bool ListenAt(int sock, const sockaddr_un &address) {
  if (unlink(address.sun_path) != 0 && errno != ENOENT) {
    Warning("%s: unlink errno %d.\n", kPickSide, errno);
    return false;
  }
  if (bind(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    Warning("%s: bind errno %d.\n", kPickSide, errno);
    return false;
  }
  if (chmod(address.sun_path, 0600) != 0) {
    Warning("%s: chmod errno %d.\n", kPickSide, errno);
    return false;
  }
  if (listen(sock, 0) != 0) {
    Warning("%s: listen errno %d.\n", kPickSide, errno);
    return false;
  }
  return true;
}

// No socket file, or one that nobody listens on, makes this the server side.
Side ConnectOrListen(int sock, const sockaddr_un &address) {
  if (connect(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
    return Side::kClient;
  }
  if (errno != ENOENT && errno != ECONNREFUSED) {
    Warning("%s: connect errno %d.\n", kPickSide, errno);
    return Side::kNone;
  }
  return ListenAt(sock, address) ? Side::kServer : Side::kNone;
}

Side ChooseUnderLock(int sock, const Meeting &meeting) {
  sockaddr_un address;
  Platform_InitUnixAddress(&address, strlen(meeting.sockPath));
  Str_Strcpy(address.sun_path, meeting.sockPath, sizeof address.sun_path);

  int lock = Platform_OpenLocked(meeting.lockPath, O_CREAT, 0600);
  if (lock < 0) {
    Warning("%s: open errno %d.\n", kPickSide, errno);
    return Side::kNone;
  }
  const Side side = ConnectOrListen(sock, address);
  // The lock ends here, long before the daemon runs.
  return ServiceImplClose(&lock, nullptr) ? side : Side::kNone;
}

// A peer that has gone is to give EPIPE, never a signal.  That is asked for while there is no peer
// yet: macOS refuses it on a socket whose peer has gone already, and who meets a service that is
// just stopping begins again.
int MakeSocket() {
  Fd sock(socket(AF_UNIX, SOCK_STREAM, 0));
  if (!sock) {
    Warning("%s: socket errno %d.\n", kPickSide, errno);
    return -1;
  }
  if (!Platform_SetNoSigpipe(sock.Get())) {
    Warning("%s: setsockopt errno %d.\n", "ServiceImplOpener", errno);
    return -1;
  }
  return sock.Release();
}

// Fills `slots->sock` unless the result is kNone.
Side ServiceImplPickSockSide(const Meeting &meeting, Slots *slots) {
  Side side = Side::kNone;
  // PRIV: lock file and socket file are root's, in a directory of root's.
  const bool ok = ServiceImplWithPrivileges([&] {
    slots->sock = MakeSocket();
    if (slots->sock >= 0) side = ChooseUnderLock(slots->sock, meeting);
    return side != Side::kNone;
  });
  if (ok) return side;
  ServiceImplClose(&slots->sock, nullptr);
  return Side::kNone;
}

// ---- the server side ------------------------------------------------------------------------

bool RunDaemon(const char *daemonPath, int sock, int statusRead) {
  char sockText[11];
  char statusText[11];
  Str_Snprintf(sockText, sizeof sockText, "%d", sock);
  Str_Snprintf(statusText, sizeof statusText, "%d", statusRead);
  const char *const argv[] = {daemonPath, sockText, statusText, nullptr};
  const int keep[] = {sock, statusRead};

  // PRIV: the daemon is to run as root.
  return ServiceImplWithPrivileges(
      [&] { return Hostinfo_Daemonize(daemonPath, argv, 0, nullptr, keep, 2); });
}

// Starts the daemon on the listening socket; afterwards the status pipe's write end is in its slot.
bool ServiceImplDaemonStart(const char *daemonPath, Slots *slots) {
  int ends[2];
  if (pipe(ends) != 0) {
    Warning("%s: pipe errno %d.\n", "ServiceImplDaemonStart", errno);
    return false;
  }
  slots->statusWrite = ends[1];
  bool ok = RunDaemon(daemonPath, slots->sock, ends[0]);
  ServiceImplClose(&ends[0], &ok);
  return ok;
}

Pass ServeOnce(const Meeting &meeting, Slots *slots) {
  // Left from an earlier pass, whose daemon did not live to serve this client.
  bool ok = ServiceImplClose(&slots->statusWrite, nullptr);
  ok = ok && (serviceState.preStartHook == nullptr || serviceState.preStartHook());
  ok = ok && ServiceImplDaemonStart(meeting.daemonPath, slots);
  // The daemon has its own copy.
  ServiceImplClose(&slots->sock, &ok);
  return ok ? Pass::kAgain : Pass::kFailed;
}

// ---- the client side ------------------------------------------------------------------------

Pass DeliverOnce(int fd, Slots *slots) {
  switch (ServiceImplReadOne(slots->sock, &ServiceImplExchangeByte())) {
    case SERVICEIMPL_READ_BYTE:
      break;
    case SERVICEIMPL_READ_EOF:
      // The listener went away before it accepted: look for another, or start it.
      return ServiceImplClose(&slots->sock, nullptr) ? Pass::kAgain : Pass::kFailed;
    default:
      return Pass::kFailed;
  }
  if (!ServiceImplSendFd(slots->sock, fd)) return Pass::kFailed;
  char reply;
  const bool answered = ServiceImplReadOne(slots->sock, &reply) == SERVICEIMPL_READ_BYTE;
  return answered && reply == kAccepted ? Pass::kDelivered : Pass::kFailed;
}

// ---- the rendezvous -------------------------------------------------------------------------

Pass ServiceImplPass(int fd, const Meeting &meeting, Slots *slots) {
  const Side side = ServiceImplPickSockSide(meeting, slots);
  if (side == Side::kNone) return Pass::kFailed;
  return side == Side::kServer ? ServeOnce(meeting, slots) : DeliverOnce(fd, slots);
}

bool ServiceImplOpener(int fd, const Meeting &meeting) {
  Slots slots;
  Pass pass;
  do {
    pass = ServiceImplPass(fd, meeting, &slots);
  } while (pass == Pass::kAgain);
  bool ok = pass == Pass::kDelivered;
  ServiceImplClose(&slots.statusWrite, &ok);
  ServiceImplClose(&slots.sock, &ok);
  return ok;
}

// The daemon gets the read end, and sees its end of file when this process, which alone has the
// write end, dies.
int ServiceImplShell(const Meeting &meeting) {
  int ends[2];
  if (pipe(ends) != 0) {
    Warning("%s: pipe errno %d.\n", "ServiceImplShell", errno);
    return EXIT_FAILURE;
  }
  bool ok = ServiceImplOpener(ends[0], meeting);
  ServiceImplClose(&ends[0], &ok);
  if (!ok) {
    ServiceImplClose(&ends[1], nullptr);
    return EXIT_FAILURE;
  }
  for (;;) sleep(60);
}

// ---- the library's module set-up ------------------------------------------------------------
//
// Other programs of the family read here, from a file, how talkative each module is.  This one
// reads no configuration, so no level can be set.

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

  const Meeting meeting = {lockPath, sockPath, daemonPath};
  if (argc == 1) return ServiceImplShell(meeting);
  if (argc == 2) {
    // Not validated: no number is 0, and a number that nothing has fails when it is sent.
    const int fd = static_cast<int>(strtol(argv[1], nullptr, 10));
    return ServiceImplOpener(fd, meeting) ? EXIT_SUCCESS : EXIT_FAILURE;
  }
  Warning("Invalid number of arguments.\n");
  return EXIT_FAILURE;
}
