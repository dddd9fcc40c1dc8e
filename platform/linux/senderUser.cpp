// senderUser.cpp -- the sender of a message, on Linux: credentials that the kernel attaches.
//
// SO_PEERCRED would not do: it is the effective user at connect(2), and a set-user-ID program may need
// root's rights to connect.
// Tests: tests/system/service_test.cpp

#include "platform/senderUser.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

namespace {

bool AttachCredentials(int sock, bool wanted) {
  const int value = wanted;
  return setsockopt(sock, SOL_SOCKET, SO_PASSCRED, &value, sizeof value) == 0;
}

// Room for the credentials and nothing else: descriptors stay in a message that is only peeked at.
union CredentialsControl {
  cmsghdr header;
  char bytes[CMSG_SPACE(sizeof(ucred))];
};

}  // namespace

bool Platform_PrepareForSender(int sock) {
  return AttachCredentials(sock, true);
}

bool Platform_SenderUser(int sock, uid_t *user) {
  CredentialsControl control = {};
  char first;
  iovec payload = {&first, 1};
  msghdr message = {};
  message.msg_iov = &payload;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes;
  message.msg_controllen = sizeof control.bytes;
  const ssize_t got = recvmsg(sock, &message, MSG_PEEK | MSG_DONTWAIT);
  // Without the option, receiving the message yields only the control data that the sender attached.
  if (got < 0 || !AttachCredentials(sock, false)) return false;

  const cmsghdr *const header = CMSG_FIRSTHDR(&message);
  if (got == 0 || header == nullptr || header->cmsg_level != SOL_SOCKET ||
      header->cmsg_type != SCM_CREDENTIALS || header->cmsg_len != CMSG_LEN(sizeof(ucred))) {
    errno = ENOTCONN;
    return false;
  }
  ucred sender;
  memcpy(&sender, CMSG_DATA(header), sizeof sender);
  *user = sender.uid;
  return true;
}
