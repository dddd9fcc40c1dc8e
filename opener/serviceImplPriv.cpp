// serviceImplPriv.cpp -- the user ids of the process: switching the effective one between the caller
// and root, and the shield against the caller's signals.
//
//                          real    effective  saved   may be signalled by
//   started                user    0          0       the user
//   lowered                user    user       0       the user
//   shielded               0       0          0       root
//   shielded and lowered   0       user       0       root
//
// The shield keeps one user from delaying others; safety never depends on it.  The user can still
// end the process by a key at its terminal or by an inherited limit or timer, and freeze it by a control
// group.  The child that becomes the daemon can be signalled again from its last step before exec.
// Tests: tests/system/caller_test.cpp, faults_test.cpp

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

// The kernel sends these to the processes of a terminal, whatever their user.
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
  // PRIV: back to root, which the saved user id still allows.
  if (seteuid(privState.saved) == 0) return true;
  Warning("%s: seteuid errno %d.\n", "ServiceImpl_PrivRaise", errno);
  return false;
}

bool ServiceImplShield() {
  if (privState.shielded) return true;
  const uid_t caller = getuid();
  const sigset_t stops = StopSignals();
  sigprocmask(SIG_BLOCK, &stops, &privState.callerMask);
  // PRIV: all three ids become root's; the effective one was already.
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

// From here on Linux counts the process as one of the user's, and would refuse the exec that follows if
// the user has too many.  The limit did not apply to root, so it is lifted for this step.
bool ServiceImplGiveDaemonItsUser() {
  rlimit limit = {};
  const bool known = getrlimit(RLIMIT_NPROC, &limit) == 0;
  const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
  const rlimit most = {limit.rlim_max, limit.rlim_max};
  // Some hosts do not let even root raise a hard limit: then the soft one is raised to it.
  if (known && setrlimit(RLIMIT_NPROC, &none) != 0) setrlimit(RLIMIT_NPROC, &most);
  const bool given = setreuid(Caller(), 0) == 0;
  const ErrnoKeeper keeper;
  if (known) setrlimit(RLIMIT_NPROC, &limit);
  return given;
}
