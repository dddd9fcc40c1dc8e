// peerProcess.cpp -- the process at the other end of a socket, on macOS.

#include "platform/peerProcess.h"

#include <sys/socket.h>
#include <sys/un.h>

bool Platform_PeerProcess(int sock, pid_t *process) {
  socklen_t size = sizeof *process;
  return getsockopt(sock, SOL_LOCAL, LOCAL_PEERPID, process, &size) == 0;
}
