// main.cpp -- lumen-reference-service: the other end of the opener's socket, as an example for authors of
// services that openers start.
//
//   lumen-reference-service SOCKET STATUS [LOG]
//
//   SOCKET  number of a Unix-domain stream socket that is already listening
//   STATUS  number of a pipe's read end; its end of file means that the opener which started the
//           service has delivered its own descriptor, or has died
//   LOG     file to which records are appended
//
// When an opener starts a service, it has effective user 0, the directory "/", a session of its own,
// /dev/null as descriptors 0 to 2, umask 022, default signal actions, and no other descriptors but the
// two.  It must not trust the real user, the groups, the environment (only shell functions, BASH_ENV, ENV
// and SHELLOPTS are removed), the resource limits and the priority: they come from the user who ran the
// opener.
//
// For each connection (docs/protocol.md has the bytes) a service must
//   1. accept it and send one byte of any value as a greeting, for which the opener waits;
//   2. receive one byte, the same one, with one descriptor as SCM_RIGHTS;
//   3. send "1" to accept or any other byte to refuse, and close.  An opener that gets neither fails.
// An opener whose connection is closed before the greeting tries again, so a service that stops need not
// empty its queue.  The socket file is not removed: the next opener that finds nobody listening
// replaces it.
//
// This service reads each descriptor until its end of file, and logs a digest and whose it was.
// Tests: tests/system/service_test.cpp

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

// Calling listen again is the only check for a listening socket that every host supports (macOS has no
// SO_ACCEPTCONN).  It also lengthens the queue, which the opener has made as short as possible: openers
// connect under their lock, so one that waits for room in the queue delays all others.
int ListenerArgument(const char *text) {
  const int fd = DescriptorArgument(text);
  if (listen(fd, SOMAXCONN) != 0) RefuseArguments("not a listening socket: ", text);
  return fd;
}

// Static, because it is too large for a stack whose limit a user may have lowered.
Service service;

// Makes the file standard output, to which records go; LogOpen would truncate it.  If that fails, the
// service runs without a log.
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
