// unixSocket.cpp -- sockets of the Unix domain, on Linux.

#include "platform/unixSocket.h"

#include <unistd.h>

#include <cerrno>

namespace {

// A listener that closes resets the connections nobody has accepted, and a peer that closes with
// bytes unread resets its own; macOS reports an end of file in both cases.
ssize_t ResetIsEndOfFile(ssize_t got) {
  return got < 0 && errno == ECONNRESET ? 0 : got;
}

}  // namespace

void Platform_InitUnixAddress(sockaddr_un *address, size_t /*pathLength*/) {
  *address = {};
  address->sun_family = AF_UNIX;
}

// Linux has no such option: Platform_SendMessage asks for EPIPE on each call.  What is left is to
// refuse what macOS would refuse, a descriptor that is not a socket.
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
