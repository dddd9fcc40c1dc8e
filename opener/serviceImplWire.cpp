// serviceImplWire.cpp -- single bytes, and a descriptor as SCM_RIGHTS control data.
// Tests: tests/unit/opener_test.cpp

#include "opener/serviceImplWire.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "lib/public/log.h"
#include "platform/unixSocket.h"

namespace {

struct {
  char exchangeByte = 0;
} wireState;

// Room for the control data of one descriptor, with the alignment of a header.
union OneFdControl {
  cmsghdr header;
  char bytes[CMSG_SPACE(sizeof(int))];
};

// A message of the exchange byte and `control`.
class ExchangeMessage {
  iovec payload_ = {&wireState.exchangeByte, 1};
  msghdr message_ = {};

 public:
  explicit ExchangeMessage(OneFdControl *control) {
    *control = {};
    message_.msg_iov = &payload_;
    message_.msg_iovlen = 1;
    message_.msg_control = control->bytes;
    message_.msg_controllen = sizeof control->bytes;
  }
  ExchangeMessage(const ExchangeMessage &) = delete;
  ExchangeMessage &operator=(const ExchangeMessage &) = delete;
  msghdr *Get() { return &message_; }
};

bool IsRights(const cmsghdr &header) {
  return header.cmsg_level == SOL_SOCKET && header.cmsg_type == SCM_RIGHTS;
}

// Closes the descriptors stored in [at, end).
void CloseAll(const unsigned char *at, const unsigned char *end) {
  for (int fd; end - at >= static_cast<ptrdiff_t>(sizeof fd); at += sizeof fd) {
    memcpy(&fd, at, sizeof fd);
    close(fd);
  }
}

// The end of the data behind `header`, but not beyond the buffer: if control data has been truncated,
// macOS leaves the sender's length in the header.
const unsigned char *EndOfData(const msghdr &message, const cmsghdr &header) {
  const auto *const begin = reinterpret_cast<const unsigned char *>(&header);
  const auto *const bufferEnd =
      static_cast<const unsigned char *>(message.msg_control) + message.msg_controllen;
  return std::min(bufferEnd, begin + header.cmsg_len);
}

// An unexpected message may carry descriptors all the same, which this process owns by now.  With the
// padding of CMSG_SPACE there is room for two.
void CloseReceived(msghdr *message) {
  for (cmsghdr *header = CMSG_FIRSTHDR(message); header != nullptr;
       header = CMSG_NXTHDR(message, header)) {
    if (IsRights(*header)) CloseAll(CMSG_DATA(header), EndOfData(*message, *header));
  }
}

}  // namespace

char &ServiceImplExchangeByte() {
  return wireState.exchangeByte;
}

bool ServiceImplClose(int *slot, bool *ok) {
  if (*slot == -1) return true;
  const bool closed = close(*slot) == 0;
  if (!closed) {
    Warning("%s: close %d errno %d.\n", "ServiceImplClose", *slot, errno);
    if (ok != nullptr) *ok = false;
  }
  *slot = -1;
  return closed;
}

int ServiceImplReadOne(int fd, char *byte) {
  const ssize_t got = Platform_Read(fd, byte, 1);
  if (got > 0) return SERVICEIMPL_READ_BYTE;
  if (got == 0) return SERVICEIMPL_READ_EOF;
  Warning("%s: read errno %d.\n", "ServiceImplReadOne", errno);
  return SERVICEIMPL_READ_ERROR;
}

bool ServiceImplWriteOne(int fd, char byte) {
  if (write(fd, &byte, 1) != -1) return true;
  if (errno != EPIPE) Warning("%s: write errno %d.\n", "ServiceImplWriteOne", errno);
  return false;
}

bool ServiceImplSendFd(int sock, int fd) {
  OneFdControl control;
  ExchangeMessage message(&control);
  cmsghdr *const header = CMSG_FIRSTHDR(message.Get());
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof fd);
  memcpy(CMSG_DATA(header), &fd, sizeof fd);

  if (Platform_SendMessage(sock, message.Get()) != -1) return true;
  if (errno != EPIPE) Warning("%s: sendmsg errno %d.\n", "ServiceImplSendFd", errno);
  return false;
}

bool ServiceImplRecvFd(int sock, int *fd) {
  OneFdControl control;
  ExchangeMessage message(&control);
  const ssize_t got = Platform_ReceiveMessage(sock, message.Get());
  if (got < 0) Warning("%s: recvmsg errno %d.\n", "ServiceImplRecvFd", errno);
  if (got <= 0) return false;

  const cmsghdr *const header = CMSG_FIRSTHDR(message.Get());
  if (message.Get()->msg_flags != 0 || header == nullptr || !IsRights(*header) ||
      header->cmsg_len != CMSG_LEN(sizeof *fd)) {
    CloseReceived(message.Get());
    Warning("%s: Unexpected message.\n", "ServiceImplRecvFd");
    return false;
  }
  memcpy(fd, CMSG_DATA(header), sizeof *fd);
  return true;
}

bool ServiceImplSetBlockingState(int fd, bool blocking) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags == -1) {
    Warning("%s: fcntl get errno %d.\n", "ServiceImplSetBlockingState", errno);
    return false;
  }
  const int wanted = blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK;
  if (fcntl(fd, F_SETFL, wanted) == -1) {
    Warning("%s: fcntl set errno %d.\n", "ServiceImplSetBlockingState", errno);
    return false;
  }
  return true;
}
