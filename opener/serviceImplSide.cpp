// serviceImplSide.cpp -- choosing the side under two locks.
//
// Idea:   connect while holding the lock file.  If nobody listens, also take the start lock, without
//         waiting.  Only its holder may unlink, bind and listen, and keeps it until the daemon runs.
// Why:    the lock file is not held while an opener stages and starts the daemon.  On Linux that alone
//         is safe, since a listener never refuses.  On macOS a listener with a full queue does: without
//         the second lock, another opener would replace the socket and rebuild the staging tree that
//         the first one has already checked and is about to execute.
// Repeat: on macOS a refusal may also come from a running daemon that is slow to accept.  So the new
//         holder of the start lock repeats the call while it holds both locks: nobody else can enter
//         the queue, so it can only drain.  The pauses add up to less than half a second, because
//         all other openers wait for the lock file meanwhile.
// Shield: all openers wait for the holder of a lock, so its user must not be able to stop it.  A server
//         stays shielded until its daemon runs.
// Proof:  docs/models/rendezvous.pml
// Tests:  tests/system/handoff_test.cpp, faults_test.cpp, startLock_test.cpp

#include "opener/serviceImplSide.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lib/public/fd.h"
#include "lib/public/log.h"
#include "lib/public/str.h"
#include "opener/pause.h"
#include "opener/serviceImpl.h"
#include "opener/serviceImplWire.h"
#include "opener/startLock.h"
#include "platform/connect.h"
#include "platform/files.h"
#include "platform/unixSocket.h"

namespace {

constexpr char kWho[] = "ServiceImplPickSockSide";

// The pauses before each further call after a refusal that proves nothing.
constexpr long kRepeatMs[] = {10, 20, 40, 80, 160};

// Logs `format` with the procedure's name and errno.
ServiceImplSide Failed(const char *format) {
  Warning(format, kWho, errno);
  return ServiceImplSide::kNone;
}

bool NobodyListens(int error) {
  return error == ENOENT || error == ECONNREFUSED;
}

// 0, or the errno of the last attempt.
int ConnectAgain(int sock, const sockaddr_un &address) {
  int error = ECONNREFUSED;
  for (const long ms : kRepeatMs) {
    PauseMs(ms);
    if (Platform_Connect(sock, address) == 0) return 0;
    error = errno;
    if (error != ECONNREFUSED) break;
  }
  return error;
}

ServiceImplSide ListenAt(int sock, const sockaddr_un &address) {
  if (unlink(address.sun_path) != 0 && errno != ENOENT) return Failed("%s: unlink errno %d.\n");
  if (bind(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    return Failed("%s: bind errno %d.\n");
  }
  if (chmod(address.sun_path, 0600) != 0) return Failed("%s: chmod errno %d.\n");
  if (listen(sock, 0) != 0) return Failed("%s: listen errno %d.\n");
  return ServiceImplSide::kServer;
}

// Called with the lock file held.  Once taken, the start lock stays in *fds whatever the result.
ServiceImplSide ConnectOrListen(const sockaddr_un &address, const char *lockPath,
                                RendezvousFds *fds) {
  if (Platform_Connect(fds->sock, address) == 0) return ServiceImplSide::kClient;
  int error = errno;
  if (NobodyListens(error)) {
    fds->startLock = StartLockTake(lockPath);
    if (fds->startLock < 0 && errno == EAGAIN) return ServiceImplSide::kBusy;
    if (fds->startLock < 0) return Failed("%s: open errno %d.\n");
    if (error == ECONNREFUSED && !Platform_RefusalIsProof()) {
      error = ConnectAgain(fds->sock, address);
    }
  }
  if (error == 0) return ServiceImplSide::kClient;
  if (NobodyListens(error)) return ListenAt(fds->sock, address);
  errno = error;
  return Failed("%s: connect errno %d.\n");
}

// Writing to a peer that has closed must give EPIPE, never a signal.  The option is set before there is
// a peer: macOS refuses it once the peer has closed, and meeting a service that is just stopping must
// lead to another pass, not to a failure.
int MakeSocket() {
  Fd sock(socket(AF_UNIX, SOCK_STREAM, 0));
  if (!sock) {
    Failed("%s: socket errno %d.\n");
    return -1;
  }
  if (!Platform_SetNoSigpipe(sock.Get())) {
    Warning("%s: setsockopt errno %d.\n", "ServiceImplOpener", errno);
    return -1;
  }
  return sock.Release();
}

ServiceImplSide ChooseUnderLock(const RendezvousPaths &paths, RendezvousFds *fds) {
  sockaddr_un address;
  Platform_InitUnixAddress(&address, strlen(paths.sockPath));
  Str_Strcpy(address.sun_path, paths.sockPath, sizeof address.sun_path);

  int lock = Platform_OpenLocked(paths.lockPath, O_CREAT, 0600);
  if (lock < 0) return Failed("%s: open errno %d.\n");
  const ServiceImplSide side = ConnectOrListen(address, paths.lockPath, fds);
  // Released at once: openers that only want to connect need it.
  return ServiceImplClose(&lock, nullptr) ? side : ServiceImplSide::kNone;
}

}  // namespace

ServiceImplSide ServiceImplPickSockSide(const RendezvousPaths &paths, RendezvousFds *fds) {
  ServiceImplSide side = ServiceImplSide::kNone;
  // PRIV: the lock files and the socket file are root's, in a directory of root's.
  const bool ok = ServiceImplWithPrivileges([&] {
    if (!ServiceImplShield()) return false;
    fds->sock = MakeSocket();
    if (fds->sock >= 0) side = ChooseUnderLock(paths, fds);
    if (side == ServiceImplSide::kServer) return true;
    // Locks and sockets that others wait for are closed before the user may signal this process again.
    if (side != ServiceImplSide::kClient) ServiceImplClose(&fds->sock, nullptr);
    const bool closed = ServiceImplClose(&fds->startLock, nullptr);
    return ServiceImplUnshield() && closed;
  });
  if (ok) return side;
  ServiceImplClose(&fds->startLock, nullptr);
  ServiceImplClose(&fds->sock, nullptr);
  return ServiceImplSide::kNone;
}
