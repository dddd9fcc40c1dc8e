/* daemon.c -- the least that a service daemon has to do: docs/protocol.md says why.
 *
 *   cc -Wall -Wextra -o daemon daemon.c
 *
 * Each connection has a process of its own, so that no user can hold up another one.  What is
 * delivered is read to its end, and its length goes to /var/run/example-daemon.log. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

extern char **environ;

static void consume(int fd) {
  char buffer[65536];
  long long total = 0;
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) total += n;
  FILE *log = fopen("/var/run/example-daemon.log", "a");
  if (log != NULL) fprintf(log, "%lld bytes\n", total), fclose(log);
}

/* Step 1: greet.  Step 2: the greeting comes back with the descriptor.  Step 3: "1" accepts it. */
static void serve(int peer) {
  char byte = 'g';
  union {
    struct cmsghdr align;
    char bytes[CMSG_SPACE(sizeof(int))];
  } control = {0};
  struct iovec payload = {&byte, 1};
  struct msghdr message = {.msg_iov = &payload,
                           .msg_iovlen = 1,
                           .msg_control = &control,
                           .msg_controllen = sizeof control};
  alarm(10); /* A user may stop the opener at any point. */
  if (send(peer, &byte, 1, MSG_NOSIGNAL) != 1) return;
  byte = 0;
  if (recvmsg(peer, &message, MSG_CMSG_CLOEXEC) != 1 || byte != 'g') return;
  struct cmsghdr *header = CMSG_FIRSTHDR(&message);
  if (header == NULL || header->cmsg_type != SCM_RIGHTS ||
      header->cmsg_len != CMSG_LEN(sizeof(int)))
    return;
  int delivered;
  memcpy(&delivered, CMSG_DATA(header), sizeof delivered);
  if (send(peer, "1", 1, MSG_NOSIGNAL) != 1) return;
  close(peer);
  alarm(0);
  consume(delivered);
}

int main(int argc, char **argv) {
  if (argc < 3) return 2;
  int listener = atoi(argv[1]); /* argv[2], the status pipe, is of no interest here */
  if (setgroups(0, NULL) != 0 || setgid(0) != 0 || setuid(0) != 0)
    return 1; /* nothing of the user stays */
  environ = NULL;
  signal(SIGCHLD, SIG_IGN);
  if (listen(listener, SOMAXCONN) != 0 || fcntl(listener, F_SETFL, O_NONBLOCK) != 0) return 1;
  for (struct pollfd ready = {listener, POLLIN, 0};; poll(&ready, 1, -1)) {
    int peer = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
    if (peer >= 0 && fork() == 0) {
      close(listener);
      serve(peer);
      return 0;
    }
    if (peer >= 0) close(peer);
  }
}
