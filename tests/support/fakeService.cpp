// fakeService.cpp -- its own implementation of the protocol, as a second opinion.

#include "tests/support/fakeService.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

Fd ListenAt(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  unlink(path.c_str());
  Fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (bind(listener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
      chmod(path.c_str(), 0600) != 0 || listen(listener.Get(), SOMAXCONN) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return listener;
}

FakeService::FakeService(const std::string &path, std::vector<Step> script)
    : script_(std::move(script)), listener_(ListenAt(path)), thread_([this] { Serve(); }) {}

// Shutting the listening socket down ends the accept that waits on it.
FakeService::~FakeService() {
  shutdown(listener_.Get(), SHUT_RDWR);
  thread_.join();
}

void FakeService::Serve() {
  for (;;) {
    const Fd connection(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection) return;
    const size_t turn = served_++;
    script_[std::min(turn, script_.size() - 1)](connection.Get());
  }
}

void Greet(int connection, char byte) {
  send(connection, &byte, 1, MSG_NOSIGNAL);
}

void Answer(int connection, char byte) {
  Greet(connection, byte);
}

Received Receive(int connection) {
  Received received;
  iovec payload = {&received.byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &payload;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  if (recvmsg(connection, &message, MSG_CMSG_CLOEXEC) != 1) return received;
  const cmsghdr *const header = CMSG_FIRSTHDR(&message);
  if (header == nullptr || header->cmsg_type != SCM_RIGHTS) return received;
  int fd;
  memcpy(&fd, CMSG_DATA(header), sizeof fd);
  received.fd.Reset(fd);
  return received;
}
