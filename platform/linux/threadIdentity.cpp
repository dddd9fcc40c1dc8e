// threadIdentity.cpp -- the calling thread's identity, on Linux: the effective ids, which the kernel
// keeps per thread.
//
// Raw system calls, because the C library's functions change all threads.  A thread returns to its saved
// ids, which exec has set to the owner's of a set-user-ID program file.
// Tests: tests/unit/hostServices_test.cpp

#include "platform/threadIdentity.h"

#include <sys/auxv.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

// Whether any thread has assumed an identity, which the ids of the main thread do not show.
std::atomic<bool> assumed{false};

constexpr uid_t kUnchanged = static_cast<uid_t>(-1);

int SetEffective(long call, uid_t id) {
  return static_cast<int>(syscall(call, kUnchanged, id, kUnchanged));
}

struct Ids {
  uid_t real, effective, saved;
  // exec sets the saved id to the effective one; a difference from then on is a change.
  bool AreStill(unsigned long realAtExec, unsigned long effectiveAtExec) const {
    return real == realAtExec && effective == effectiveAtExec && saved == effectiveAtExec;
  }
};

}  // namespace

// The user first: root may then set the group.  If the process is not root's, the group is not changed
// either: Platform_AssumeThreadIdentity could not take it back.
int Platform_ResumeProcessIdentity() {
  Ids user, group;
  if (getresuid(&user.real, &user.effective, &user.saved) != 0 ||
      getresgid(&group.real, &group.effective, &group.saved) != 0) {
    return -1;
  }
  if (user.saved != 0) {
    errno = EPERM;
    return -1;
  }
  if (SetEffective(SYS_setresuid, user.saved) != 0) return -1;
  return SetEffective(SYS_setresgid, group.saved);
}

// The group first: after the switch to `uid`, the thread may no longer be allowed to change it.
int Platform_AssumeThreadIdentity(uid_t uid, gid_t gid) {
  if (SetEffective(SYS_setresgid, gid) != 0 || SetEffective(SYS_setresuid, uid) != 0) return -1;
  assumed = true;
  return 0;
}

bool Platform_IsSetUGid() {
  Ids user, group;
  return assumed || getauxval(AT_SECURE) != 0 ||
         getresuid(&user.real, &user.effective, &user.saved) != 0 ||
         getresgid(&group.real, &group.effective, &group.saved) != 0 ||
         !user.AreStill(getauxval(AT_UID), getauxval(AT_EUID)) ||
         !group.AreStill(getauxval(AT_GID), getauxval(AT_EGID));
}
