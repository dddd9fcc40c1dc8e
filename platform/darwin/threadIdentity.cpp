// threadIdentity.cpp -- the calling thread's identity, on macOS: settid, a system call without a
// function in the library.
//
// A thread can assume an identity only if it has none so far, and only if the effective user of the
// process is root; otherwise both calls fail with EPERM and change nothing.

#include "platform/threadIdentity.h"

#include <sys/kauth.h>
#include <unistd.h>

namespace {

constexpr int kSettid = 285;  // its counterpart gettid, 286, is of no use here

int Settid(uid_t uid, gid_t gid) {
#pragma clang diagnostic push
// Deprecated without a replacement that can return to the process's identity.
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
  return syscall(kSettid, uid, gid);
#pragma clang diagnostic pop
}

}  // namespace

int Platform_ResumeProcessIdentity() {
  return Settid(KAUTH_UID_NONE, KAUTH_GID_NONE);
}

int Platform_AssumeThreadIdentity(uid_t uid, gid_t gid) {
  return Settid(uid, gid);
}

bool Platform_IsSetUGid() {
  return issetugid() == 1;
}
