// threadIdentity.cpp -- the calling thread's identity, on macOS: settid, which has a number but no
// name in the library.
//
// The kernel assumes an identity only for a thread that has none, and only in a process whose own
// effective user is root; otherwise both calls are EPERM and change nothing.

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

int Platform_DropThreadIdentity() {
  return Settid(KAUTH_UID_NONE, KAUTH_GID_NONE);
}

int Platform_AssumeThreadIdentity(uid_t uid, gid_t gid) {
  return Settid(uid, gid);
}

bool Platform_IsSetUGid() {
  return issetugid() == 1;
}
