// senderUser.cpp -- the sender of a message, on macOS: the process that used the other end last.
//
// LOCAL_PEERCRED would not do: it has the effective user at connect(2), who is root when a
// set-user-ID program had to raise itself for that.

#include "platform/senderUser.h"

#include <sys/socket.h>
#include <sys/sysctl.h>
#include <sys/un.h>

#include <cerrno>

// The kernel always knows the process.
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
  // Without such a process the call succeeds, with nothing.
  if (infoSize == 0) {
    errno = ESRCH;
    return false;
  }
  *user = info.kp_eproc.e_pcred.p_ruid;
  return true;
}
