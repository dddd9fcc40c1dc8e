// serviceImpl.h -- the rendezvous with the service daemon, and the privileges it needs.
//
// All of it belongs to the one thread of a set-user-ID program.
#pragma once

// Runs before the daemon is started, with lowered privileges; false gives the start up.
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

// Records the effective user id and makes the real one effective; a failure is logged.
void ServiceImpl_PrivLower();

// Makes the recorded user id effective again; a failure is logged.  Calls alternate, lower first:
// lowering twice would record the user's id and lose root for good.
void ServiceImpl_PrivRaise();

// Raised while it stands, and lowered on every way out.
class ServiceImplPrivBracket {
 public:
  ServiceImplPrivBracket() { ServiceImpl_PrivRaise(); }
  ServiceImplPrivBracket(const ServiceImplPrivBracket &) = delete;
  ServiceImplPrivBracket &operator=(const ServiceImplPrivBracket &) = delete;
  ~ServiceImplPrivBracket() { ServiceImpl_PrivLower(); }
};
