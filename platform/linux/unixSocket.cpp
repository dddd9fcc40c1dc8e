// unixSocket.cpp -- Unix-domain sockets on Linux.
// Tests: tests/unit/opener_test.cpp, tests/system/faults_test.cpp

#include "platform/unixSocket.h"

#include <unistd.h>

#include <cerrno>

namespace {

// Linux resets connections that were not accepted before their listener closed, and those whose peer
// closes with data unread; macOS reports an end of file in both cases.
ssize_t ResetIsEndOfFile(ssize_t got) {
  return got < 0 && errno == ECONNRESET ? 0 : got;
}

}  // namespace

void Platform_InitUnixAddress(sockaddr_un *address, size_t /*pathLength*/) {
  *address = {};
  address->sun_family = AF_UNIX;
}

// Linux has no such option: Platform_SendMessage passes a flag with each call.  Here only descriptors
// that are no sockets are refused, as on macOS.
bool Platform_SetNoSigpipe(int sock) {
  int type;
  socklen_t size = sizeof type;
  return getsockopt(sock, SOL_SOCKET, SO_TYPE, &type, &size) == 0;
}

ssize_t Platform_SendMessage(int sock, const msghdr *message) {
  return sendmsg(sock, message, MSG_NOSIGNAL);
}

ssize_t Platform_Read(int fd, void *buffer, size_t size) {
  return ResetIsEndOfFile(read(fd, buffer, size));
}

ssize_t Platform_ReceiveMessage(int sock, msghdr *message) {
  return ResetIsEndOfFile(recvmsg(sock, message, 0));
}
