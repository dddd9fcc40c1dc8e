// main.cpp -- lumen-reference-service: the other end of the opener's socket, as an example for
// whoever writes a service that openers start.
//
//   lumen-reference-service SOCKET STATUS [LOG]
//
//   SOCKET  number of a Unix-domain stream socket that listens already
//   STATUS  number of a pipe's read end; its end of file says that the opener which started the
//           service has handed over its own descriptor, or has died
//   LOG     file that the records are appended to
//
// What a service finds when an opener has started it: effective user 0, the directory "/", a
// session of its own, /dev/null on 0 to 2, umask 022, default signal actions, and no descriptor but
// the two. What it must not trust: the real user and all groups, the environment (shell functions,
// BASH_ENV, ENV and SHELLOPTS are gone, all else is there), the resource limits and the priority are
// those of the user who ran the opener.
//
// What it does, for each connection (docs/protocol.md has the bytes):
//   1. accept, and send one byte, of any value, as a greeting: until then the opener waits;
//   2. receive one byte with one descriptor as SCM_RIGHTS; the byte is the greeting sent back;
//   3. send "1" to accept, any other byte to refuse, and close.  An opener that gets neither fails.
// An opener whose connection is closed before the greeting begins again, so a service that stops
// may leave its queue behind.  The socket file stays: the next opener to find that nobody listens
// replaces it.
//
// This service reads what it is given up to the end of file and logs what it was, for whom.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "lib/public/fd.h"
#include "lib/public/log.h"
#include "service/detach.h"
#include "service/service.h"
#include "service/signals.h"

namespace {

constexpr char kDefaultLog[] = "/var/run/Zephrin Lumen Client Services.log";
constexpr int kExitUsage = 2;

[[noreturn]] void RefuseArguments(const char *reason, const char *argument) {
  dprintf(STDERR_FILENO,
          "lumen-reference-service: %s%s\n"
          "usage: lumen-reference-service SOCKET STATUS [LOG]\n"
          "Openers start it; SOCKET (listening) and STATUS (a pipe's read end) are the numbers of\n"
          "open descriptors above 2.\n",
          reason, argument);
  exit(kExitUsage);
}

// The open descriptor above 2 that `text` names in decimal.
int DescriptorArgument(const char *text) {
  char *end;
  errno = 0;
  const long number = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || number > INT_MAX) {
    RefuseArguments("not a number: ", text);
  }
  if (number <= STDERR_FILENO || fcntl(static_cast<int>(number), F_GETFD) == -1) {
    RefuseArguments("no such descriptor: ", text);
  }
  return static_cast<int>(number);
}

// A second listen is the one question that every host answers (macOS has no SO_ACCEPTCONN), and has a
// use: the opener listens with a queue of the smallest length.  Openers connect under their lock, so
// one that finds the queue full holds up all others.
int ListenerArgument(const char *text) {
  const int fd = DescriptorArgument(text);
  if (listen(fd, SOMAXCONN) != 0) RefuseArguments("not a listening socket: ", text);
  return fd;
}

// Here, because it is too large for a stack that a user may have limited.
Service service;

// Records go to standard output, so the file takes its place; LogOpen would truncate it.  Without
// the file the service still serves.
void AppendLogTo(const char *path) {
  const Fd file(open(path, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file || dup2(file.Get(), STDOUT_FILENO) == -1) {
    Warning("Cannot append to %s, errno %d.\n", path, errno);
  }
}

}  // namespace

int main(int argc, char *argv[]) {
  if (argc != 3 && argc != 4) RefuseArguments("two or three arguments are needed", "");
  Fd listener(ListenerArgument(argv[1]));
  Fd status(DescriptorArgument(argv[2]));
  if (listener.Get() == status.Get()) RefuseArguments("the same descriptor twice: ", argv[2]);
  if (!Detach_FromCaller()) {
    Warning("Cannot shake off the caller, errno %d.\n", errno);
    return EXIT_FAILURE;
  }
  AppendLogTo(argc == 4 ? argv[3] : kDefaultLog);
  Log("Started: PID %u, socket %d, status pipe %d.\n", static_cast<unsigned>(getpid()),
      listener.Get(), status.Get());

  Fd stop(Signals_Install());
  if (!stop) {
    Warning("Cannot handle signals, errno %d.\n", errno);
    return EXIT_FAILURE;
  }
  return service.Run(std::move(listener), std::move(status), std::move(stop)) ? EXIT_SUCCESS
                                                                              : EXIT_FAILURE;
}
