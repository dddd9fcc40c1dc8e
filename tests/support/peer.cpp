// peer.cpp -- the protocol without the product's code.

#include "tests/support/peer.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "tests/support/process.h"
#include "tests/support/test.h"

namespace {

// bind(2) or connect(2).
template <typename Call>
Fd SocketAt(const std::string &path, Call call) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  Fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  Check(call(sock.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0,
        path.c_str());
  return sock;
}

}  // namespace

Fd ListenAt(const std::string &path) {
  unlink(path.c_str());
  Fd listener = SocketAt(path, bind);
  Check(chmod(path.c_str(), 0600) == 0 && listen(listener.Get(), SOMAXCONN) == 0, "listen");
  const timeval longest = {Process::kTimeoutMs / 1000, 0};  // for accept
  setsockopt(listener.Get(), SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
  return listener;
}

Fd Accept(const Fd &listener) {
  Fd connection(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  Check(bool(connection), "accept4");
  return connection;
}

Fd ConnectTo(const std::string &path) {
  return SocketAt(path, connect);
}

void Say(const Fd &connection, char byte) {
  send(connection.Get(), &byte, 1, MSG_NOSIGNAL);
}

Received Receive(const Fd &connection) {
  Received received;
  iovec payload = {&received.byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {nullptr, 0, &payload, 1, control, sizeof control, 0};
  if (recvmsg(connection.Get(), &message, MSG_CMSG_CLOEXEC) != 1) return received;
  const cmsghdr *const header = CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_type != SCM_RIGHTS) return received;
  int fd;
  memcpy(&fd, CMSG_DATA(header), sizeof fd);
  received.fd.Reset(fd);
  return received;
}

void SendFds(const Fd &connection, std::string_view payload, int fd, size_t count) {
  const std::vector<int> fds(count, fd);
  std::vector<char> control(count == 0 ? 0 : CMSG_SPACE(count * sizeof fd));
  iovec data = {const_cast<char *>(payload.data()), payload.size()};
  msghdr message = {nullptr, 0, &data, 1, control.data(), control.size(), 0};
  if (count > 0) {
    *CMSG_FIRSTHDR(&message) = {CMSG_LEN(count * sizeof fd), SOL_SOCKET, SCM_RIGHTS};
    memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), fds.data(), count * sizeof fd);
  }
  Check(sendmsg(connection.Get(), &message, MSG_NOSIGNAL) >= 0, "sendmsg");
}
