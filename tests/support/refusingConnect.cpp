// refusingConnect.cpp -- connecting as on macOS, linked in the place of the host's own: a full queue
// refuses at once, until there is a file /run/patient: then it waits, however slow the machine is.

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
