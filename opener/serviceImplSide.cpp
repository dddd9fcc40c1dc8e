// serviceImplSide.cpp -- choosing the side under two locks.
//
// Idea:   under the lock file, connect.  If nobody listens, also take the start lock, without waiting;
//         its holder alone may unlink, bind and listen, and keeps it until its daemon runs.
// Why:    the lock file is free while an opener stages and starts the daemon.  On Linux that is safe
//         by itself, since a listener never refuses.  On macOS one with a full queue does: without
//         the second lock, another opener would replace the socket and rebuild the staging tree under
//         a first one that has already checked it.
// Repeat: on macOS a refusal may also come from a daemon that runs and is slow to accept.  So the
//         start lock's new holder repeats the call with both locks held: meanwhile nobody else can
//         enter the queue, which therefore only drains.  Together these pauses stay below half a
//         second, since everybody else waits for the lock file.
// Shield: everybody waits for the holder of a lock, so its user must not be able to stop it.  A server
//         stays shielded until its daemon runs.
// Proof:  docs/models/rendezvous.pml.  Tests: tests/system/

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

// Before each further call after a refusal that proves nothing.
constexpr long kRepeatMs[] = {10, 20, 40, 80, 160};

// `format` takes the procedure and errno.
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

// Under the lock file.  The start lock stays in its slot whatever the result.
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

// A peer that has gone is to give EPIPE, never a signal.  That is asked for while there is no peer
// yet: macOS refuses it on a socket whose peer has already gone, and an opener that meets a service
// which is just stopping begins again.
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
  // Not held any longer than this: openers that only want to connect need it.
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
    // What others wait for goes before this process is its user's again.
    if (side != ServiceImplSide::kClient) ServiceImplClose(&fds->sock, nullptr);
    const bool closed = ServiceImplClose(&fds->startLock, nullptr);
    return ServiceImplUnshield() && closed;
  });
  if (ok) return side;
  ServiceImplClose(&fds->startLock, nullptr);
  ServiceImplClose(&fds->sock, nullptr);
  return ServiceImplSide::kNone;
}
