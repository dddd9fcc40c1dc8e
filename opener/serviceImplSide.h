// serviceImplSide.h -- on which side of the rendezvous an opener is: the one that connects to the
// daemon, or the one that starts it.
#pragma once

// Where the daemon is met; no pointer is null.
struct RendezvousPaths {
  const char *lockPath;
  const char *sockPath;
  const char *daemonPath;
};

// The descriptors of one rendezvous, in slots for ServiceImplClose.  The daemon sees the status
// pipe's end of file when the rendezvous is over.
struct RendezvousFds {
  int sock = -1;
  int startLock = -1;  // while this opener is the one that starts the daemon
  int statusWrite = -1;
};

enum class ServiceImplSide {
  kNone,    // nothing is open; the reason is logged
  kBusy,    // nobody listens, and another opener is about to; nothing is open
  kClient,  // `sock` is connected
  kServer,  // `sock` listens, `startLock` is held, and the process is shielded
};

// Takes the lock file, connects or else listens, and releases the lock file.  `fds->sock` and
// `fds->startLock` are empty before.  Called with lowered privileges, which it raises meanwhile.  A
// socket path too long for its address is fatal.  Not thread-safe.
[[nodiscard]] ServiceImplSide ServiceImplPickSockSide(const RendezvousPaths &paths,
                                                      RendezvousFds *fds);
