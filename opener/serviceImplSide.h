// serviceImplSide.h -- the two sides of the rendezvous: an opener connects to the daemon, or starts it.
#pragma once

// No pointer is null.
struct RendezvousPaths {
  const char *lockPath;
  const char *sockPath;
  const char *daemonPath;
};

// The descriptors of one rendezvous; -1: none.  ServiceImplClose closes them.  The daemon sees the end
// of file of the status pipe when the rendezvous is over.
struct RendezvousFds {
  int sock = -1;
  int startLock = -1;  // held while this opener is starting the daemon
  int statusWrite = -1;
};

enum class ServiceImplSide {
  kNone,    // nothing is open; the reason is logged
  kBusy,    // nobody listens, and another opener is starting the daemon; nothing is open
  kClient,  // `sock` is connected
  kServer,  // `sock` listens, `startLock` is held, and the process is shielded
};

// Takes the lock file, connects or else listens, and releases the lock file.  `fds->sock` and
// `fds->startLock` are -1 before.  Called with lowered privileges, which it raises temporarily.  A
// socket path too long for its address is fatal.  Not thread-safe.
[[nodiscard]] ServiceImplSide ServiceImplPickSockSide(const RendezvousPaths &paths,
                                                      RendezvousFds *fds);
