/* minimalHandoff.c -- the least that hands descriptor argv[1] to the service: connect, exchange the
   bytes, send the descriptor.  The opener's peer in handoff_bench. */

#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char *argv[]) {
  struct sockaddr_un address = {.sun_family = AF_UNIX,
                                .sun_path = "/var/run/Zephrin Lumen Client Services.sock"};
  if (argc != 2) return 2;
  const int fd = atoi(argv[1]);
  const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  if (connect(sock, (const struct sockaddr *)&address, sizeof address) != 0) return 1;

  char byte;
  if (read(sock, &byte, 1) != 1) return 1;

  union {
    struct cmsghdr header;
    char bytes[CMSG_SPACE(sizeof(int))];
  } control = {0};
  struct iovec payload = {&byte, 1};
  struct msghdr message = {.msg_iov = &payload,
                           .msg_iovlen = 1,
                           .msg_control = &control,
                           .msg_controllen = sizeof control};
  control.header.cmsg_level = SOL_SOCKET;
  control.header.cmsg_type = SCM_RIGHTS;
  control.header.cmsg_len = CMSG_LEN(sizeof fd);
  memcpy(CMSG_DATA(&control.header), &fd, sizeof fd);
  if (sendmsg(sock, &message, 0) != 1) return 1;

  return read(sock, &byte, 1) == 1 && byte == '1' ? 0 : 1;
}
