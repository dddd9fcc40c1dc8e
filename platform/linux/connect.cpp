// connect.cpp -- connecting to a Unix-domain socket, on Linux.
// Tests: tests/system/handoff_test.cpp

#include "platform/connect.h"

#include <sys/socket.h>

int Platform_Connect(int sock, const sockaddr_un &address) {
  return connect(sock, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

bool Platform_RefusalIsProof() {
  return true;
}
