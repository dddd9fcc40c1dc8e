// peerProcess.cpp -- the process at the other end of a socket, on Linux.

#include "platform/peerProcess.h"

#include <sys/socket.h>

bool Platform_PeerProcess(int sock, pid_t *process) {
  ucred peer;
  socklen_t size = sizeof peer;
  if (getsockopt(sock, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  *process = peer.pid;
  return true;
}
