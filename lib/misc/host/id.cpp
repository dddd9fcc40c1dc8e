// id.cpp -- the super-user bracket and the identity queries.
//
// Tests: tests/unit/hostServices_test.cpp

#include "lib/public/id.h"

#include <unistd.h>

#include "lib/public/fatal.h"
#include "lib/public/log.h"
#include "platform/threadIdentity.h"

namespace {

constexpr uid_t kNothingToRestore = static_cast<uid_t>(-1);

}  // namespace

uid_t Id_BeginSuperUser() {
  const uid_t uid = geteuid();
  if (uid == 0) return kNothingToRestore;
  if (uid == kNothingToRestore) Fatal_Verify("lib/misc/idLinux", 925);
  // PRIV: the process's identity is the super-user's.  If it is not, this fails or changes nothing, and
  // the calls inside the bracket fail by themselves.
  static_cast<void>(Platform_ResumeProcessIdentity());
  return uid;
}

void Id_EndSuperUser(uid_t savedUid) {
  if (savedUid == kNothingToRestore || geteuid() == savedUid) return;
  // PRIV: gives up what the beginning of the bracket took.
  if (Platform_AssumeThreadIdentity(savedUid, getgid()) == -1) {
    Log("Failed to release super user privileges.\n");
  }
}

bool Id_IsSetUGid() {
  return getuid() != geteuid() || getgid() != getegid() || Platform_IsSetUGid();
}

int Id_SetGid(gid_t) {
  Warning("XXXMACOS: implement %s\n", "Id_SetGid");
  return -1;
}

int Id_SetRESUid(uid_t, uid_t, uid_t) {
  Warning("XXX: implement %s\n", "Id_SetRESUid");
  return -1;
}

int Id_SetREUid(uid_t, uid_t) {
  Warning("XXXMACOS: implement %s\n", "Id_SetREUid");
  return -1;
}
