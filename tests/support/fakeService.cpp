// fakeService.cpp -- the protocol once more, without the product's code.

#include "tests/support/fakeService.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace {

[[noreturn]] void Fail(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un AddressOf(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

}  // namespace

Fd ListenAt(const std::string &path) {
  const sockaddr_un address = AddressOf(path);
  unlink(path.c_str());
  Fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (bind(listener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
      chmod(path.c_str(), 0600) != 0 || listen(listener.Get(), SOMAXCONN) != 0) {
    Fail(path);
  }
  return listener;
}

Fd ConnectTo(const std::string &path) {
  const sockaddr_un address = AddressOf(path);
  Fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connect(sock.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    Fail(path);
  }
  return sock;
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

void Say(int connection, char byte) {
  send(connection, &byte, 1, MSG_NOSIGNAL);
}

void SendFds(int connection, std::string_view payload, int fd, size_t count) {
  const std::vector<int> fds(count, fd);
  std::vector<char> control(CMSG_SPACE(count * sizeof fd));
  iovec data = {const_cast<char *>(payload.data()), payload.size()};
  msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  if (count > 0) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr *const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(count * sizeof fd);
    memcpy(CMSG_DATA(header), fds.data(), count * sizeof fd);
  }
  if (sendmsg(connection, &message, MSG_NOSIGNAL) < 0) Fail("sendmsg");
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
