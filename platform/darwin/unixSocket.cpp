// unixSocket.cpp -- Unix-domain sockets on macOS.

#include "platform/unixSocket.h"

#include <unistd.h>

namespace {

const int kOn = 1;

}  // namespace

void Platform_InitUnixAddress(sockaddr_un *address, size_t pathLength) {
  *address = {};
  // Only for people who read a dump: the kernel uses the length argument of connect and bind.
  address->sun_len = static_cast<unsigned char>(pathLength + 1);
  address->sun_family = AF_UNIX;
}

bool Platform_SetNoSigpipe(int sock) {
  return setsockopt(sock, SOL_SOCKET, SO_NOSIGPIPE, &kOn, sizeof kOn) == 0;
}

ssize_t Platform_SendMessage(int sock, const msghdr *message) {
  return sendmsg(sock, message, 0);
}

ssize_t Platform_Read(int fd, void *buffer, size_t size) {
  return read(fd, buffer, size);
}

ssize_t Platform_ReceiveMessage(int sock, msghdr *message) {
  return recvmsg(sock, message, 0);
}
