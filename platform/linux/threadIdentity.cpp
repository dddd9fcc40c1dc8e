// threadIdentity.cpp -- the calling thread's identity, on Linux: the effective ids, which the kernel
// keeps for each thread.
//
// The raw system calls, because the library's own change all threads.  What a thread returns to is
// its saved ids: those of the program file that exec left there.

#include "platform/threadIdentity.h"

#include <sys/auxv.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

// Whether a thread has assumed an identity: the process's own ids do not tell.
std::atomic<bool> assumed{false};

constexpr uid_t kUnchanged = static_cast<uid_t>(-1);

int SetEffective(long call, uid_t id) {
  return static_cast<int>(syscall(call, kUnchanged, id, kUnchanged));
}

struct Ids {
  uid_t real, effective, saved;
  bool AreStill(unsigned long realAtExec, unsigned long effectiveAtExec) const {
    return real == realAtExec && effective == effectiveAtExec && saved == effectiveAtExec;
  }
};

}  // namespace

// The user first: root may then choose the group.  A process of another user keeps its group, too:
// nobody would take back what a set-group-ID program gained here.
int Platform_DropThreadIdentity() {
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

// The group first: the user may then not be allowed to choose one.
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
