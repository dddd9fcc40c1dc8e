// serviceImplPriv.cpp -- the user ids of the process: switching the effective one between the caller
// and root, and keeping the caller's signals out.
//
//                          real    effective  saved   who may signal it
//   started                user    0          0       the user
//   lowered                user    user       0       the user
//   shielded               0       0          0       root
//   shielded and lowered   0       user       0       root
//
// A shield is comfort for others, never safety: a terminal's user can still end the process by a key, a
// control group can freeze it, and limits and timers that were inherited can end it.  The daemon to be
// is the user's to signal from its last step before exec on.

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

#include "lib/public/errnoKeeper.h"
#include "lib/public/log.h"
#include "opener/serviceImpl.h"

namespace {

struct {
  uid_t saved = 0;  // the effective user id before the last PrivLower
  bool shielded = false;
  uid_t caller = 0;          // the real user id before the shield
  sigset_t callerMask = {};  // the signal mask before it
} privState;

uid_t Caller() {
  return privState.shielded ? privState.caller : getuid();
}

// Those by which a terminal stops a process come from the kernel, whoever the process belongs to.
sigset_t StopSignals() {
  sigset_t stops;
  sigemptyset(&stops);
  for (const int number : {SIGTSTP, SIGTTIN, SIGTTOU}) sigaddset(&stops, number);
  return stops;
}

}  // namespace

bool ServiceImpl_PrivLower() {
  privState.saved = geteuid();
  if (seteuid(Caller()) == 0) return true;
  Warning("%s: seteuid errno %d.\n", "ServiceImpl_PrivLower", errno);
  return false;
}

bool ServiceImpl_PrivRaise() {
  // PRIV: back to root, which the saved set-user-ID still allows.
  if (seteuid(privState.saved) == 0) return true;
  Warning("%s: seteuid errno %d.\n", "ServiceImpl_PrivRaise", errno);
  return false;
}

bool ServiceImplShield() {
  if (privState.shielded) return true;
  const uid_t caller = getuid();
  const sigset_t stops = StopSignals();
  sigprocmask(SIG_BLOCK, &stops, &privState.callerMask);
  // PRIV: all three ids are root's; the effective one was already.
  if (setreuid(0, 0) == 0) {
    privState.caller = caller;
    privState.shielded = true;
    LogHold();
    return true;
  }
  Warning("%s: setreuid errno %d.\n", "ServiceImplShield", errno);
  sigprocmask(SIG_SETMASK, &privState.callerMask, nullptr);
  return false;
}

bool ServiceImplUnshield() {
  if (!privState.shielded) return true;
  if (setreuid(privState.caller, 0) != 0) {
    Warning("%s: setreuid errno %d.\n", "ServiceImplUnshield", errno);
    return false;
  }
  privState.shielded = false;
  sigprocmask(SIG_SETMASK, &privState.callerMask, nullptr);
  LogRelease();
  return true;
}

// Linux counts the process as the user's from here on, and where that is one too many it would refuse
// the exec that follows.  The limit was none for root until now, and must not become one here.
bool ServiceImplGiveDaemonItsUser() {
  rlimit limit = {};
  const bool known = getrlimit(RLIMIT_NPROC, &limit) == 0;
  const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
  const rlimit most = {limit.rlim_max, limit.rlim_max};
  // The second where even root may not raise a hard limit.
  if (known && setrlimit(RLIMIT_NPROC, &none) != 0) setrlimit(RLIMIT_NPROC, &most);
  const bool given = setreuid(Caller(), 0) == 0;
  const ErrnoKeeper keeper;
  if (known) setrlimit(RLIMIT_NPROC, &limit);
  return given;
}
