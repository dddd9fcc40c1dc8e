// serviceImpl.h -- the rendezvous with the service daemon, and the privileges it needs.
//
// All of it belongs to the one thread of a set-user-ID program.
#pragma once

// Runs before the daemon is started, with lowered privileges; false abandons the start.
using ServiceImplPreStartHook = bool (*)();

// Installs the hook; null, the initial one, is none.
void ServiceImpl_SetPreStartHook(ServiceImplPreStartHook hook);

// Delivers a descriptor to the daemon that listens at `sockPath`, starting the program `daemonPath`
// first if none does.  `lockPath` makes the choice between the two atomic.  With one argument in
// argv its number is the descriptor; without one a pipe's read end is handed over, and the call
// does not return after a success.  `level` goes to the library's module set-up.  No pointer is
// null; a socket path too long for its address is fatal.  Returns the exit status: 0 or 1, the
// reason logged.
[[nodiscard]] int ServiceImpl_Opener(int argc, char *argv[], int level, const char *lockPath,
                                     const char *sockPath, const char *daemonPath);

// Records the effective user id and makes the real one effective.  False, after a record, when that
// fails: then the program must not go on.
[[nodiscard]] bool ServiceImpl_PrivLower();

// Makes the recorded user id effective again.  False, after a record, when that fails; then nothing
// has changed, and there is nothing to lower.  Calls alternate, lower first: lowering twice would
// record the user's id and lose root for good.
[[nodiscard]] bool ServiceImpl_PrivRaise();

// Makes the real user id root's, too, so that the caller cannot signal the process, and holds back
// the signals by which a terminal stops it, and the records of the log (LogHold).  ServiceImpl_PrivLower
// goes on to lower to the caller, and ServiceImpl_PrivRaise to raise.  The second one undoes it, once
// nobody waits for this process any more: what others wait for is closed before.  Both are called with
// raised privileges, and do nothing when things are so already.  False, after a record, on failure: then
// nothing has changed.
[[nodiscard]] bool ServiceImplShield();
[[nodiscard]] bool ServiceImplUnshield();

// For Hostinfo_SetPreExecHook: the daemon starts with the caller for its real user, shielded or not.
[[nodiscard]] bool ServiceImplGiveDaemonItsUser();

// Runs `body`, which returns a boolean, with raised privileges, and lowers them whatever it returns.
// False when `body` says so, and when one of the two switches fails.
template <typename Body>
[[nodiscard]] bool ServiceImplWithPrivileges(Body body) {
  if (!ServiceImpl_PrivRaise()) return false;
  const bool ok = body();
  return ServiceImpl_PrivLower() && ok;
}
