// serviceImpl.h -- the rendezvous with the service daemon, and the privileges it needs.
//
// For set-user-ID programs with a single thread.
#pragma once

// Called before each start of the daemon, with lowered privileges; false abandons the start.
using ServiceImplPreStartHook = bool (*)();

// Installs the hook; null, the default, is none.
void ServiceImpl_SetPreStartHook(ServiceImplPreStartHook hook);

// Delivers a descriptor to the daemon that listens at `sockPath`, starting the program `daemonPath`
// first if none does.  The lock file `lockPath` makes that decision atomic.  One argument in argv is
// the number of the descriptor; without an argument, the read end of a pipe is delivered, and the call
// does not return after a success.  `level` is passed to the library's module set-up.  No pointer may
// be null; a socket path too long for its address is fatal.  Returns the exit status: 0, or 1 with the
// reason logged.
[[nodiscard]] int ServiceImpl_Opener(int argc, char *argv[], int level, const char *lockPath,
                                     const char *sockPath, const char *daemonPath);

// Saves the effective user id and makes the real one effective.  On failure logs it and returns false:
// the program must not continue then.
[[nodiscard]] bool ServiceImpl_PrivLower();

// Makes the saved user id effective again.  On failure logs it and returns false: nothing has changed,
// and there is nothing to lower.  Calls must alternate, beginning with PrivLower: lowering twice would
// save the user's id and lose root for good.
[[nodiscard]] bool ServiceImpl_PrivRaise();

// The shield: the real user id becomes root's as well, so that the user cannot signal the process; the
// signals by which a terminal stops it are blocked; records are held back (LogHold).
// ServiceImpl_PrivLower and PrivRaise work as before, between the user and root.  Unshield undoes all of
// it; locks and sockets that other openers wait for must be closed first.  Call both with raised
// privileges; repeated calls do nothing.  On failure they log it, change nothing and return false.
[[nodiscard]] bool ServiceImplShield();
[[nodiscard]] bool ServiceImplUnshield();

// For Hostinfo_SetPreExecHook: gives the daemon the caller as its real user, shielded or not.
[[nodiscard]] bool ServiceImplGiveDaemonItsUser();

// Runs `body`, which returns a boolean, with raised privileges, and lowers them afterwards in any case.
// True if `body` returned true and both switches succeeded.
template <typename Body>
[[nodiscard]] bool ServiceImplWithPrivileges(Body body) {
  if (!ServiceImpl_PrivRaise()) return false;
  const bool ok = body();
  return ServiceImpl_PrivLower() && ok;
}
