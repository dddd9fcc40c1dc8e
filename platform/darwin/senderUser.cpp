// senderUser.cpp -- the sender of a message, on macOS: the process that last used the other end.
//
// LOCAL_PEERCRED would not do: it is the effective user at connect(2), and a set-user-ID program may
// need root's rights to connect.
// Tests: tests/unit/darwin_test.cpp

#include "platform/senderUser.h"

#include <sys/socket.h>
#include <sys/sysctl.h>
#include <sys/un.h>

#include <cerrno>

// macOS needs no preparation: the kernel always knows the process.
bool Platform_PrepareForSender(int /*sock*/) {
  return true;
}

bool Platform_SenderUser(int sock, uid_t *user) {
  pid_t peer;
  socklen_t peerSize = sizeof peer;
  if (getsockopt(sock, SOL_LOCAL, LOCAL_PEERPID, &peer, &peerSize) != 0) return false;

  int mib[] = {CTL_KERN, KERN_PROC, KERN_PROC_PID, peer};
  kinfo_proc info;
  size_t infoSize = sizeof info;
  if (sysctl(mib, 4, &info, &infoSize, nullptr, 0) != 0) return false;
  // If there is no such process, the call succeeds with size 0.
  if (infoSize == 0) {
    errno = ESRCH;
    return false;
  }
  *user = info.kp_eproc.e_pcred.p_ruid;
  return true;
}
