// refusingConnect.cpp -- replaces platform/linux/connect.cpp by the behaviour of macOS: a full queue refuses
// at once.  If there is a file /run/patient it waits instead, so that a slow machine does not fail.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/connect.h"

int Platform_Connect(int sock, const sockaddr_un &address) {
  const int flags = fcntl(sock, F_GETFL);
  if (access("/run/patient", F_OK) != 0) fcntl(sock, F_SETFL, flags | O_NONBLOCK);
  const int result = connect(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address);
  const int error = errno;
  fcntl(sock, F_SETFL, flags);
  errno = error == EAGAIN ? ECONNREFUSED : error;
  return result;
}

bool Platform_RefusalIsProof() {
  return false;
}
