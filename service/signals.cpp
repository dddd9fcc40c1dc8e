// signals.cpp -- a pipe carries the request to stop from the signal handler to the event loop.
// Tests: tests/system/service_test.cpp

#include "service/signals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "lib/public/errnoKeeper.h"
#include "lib/public/fd.h"

namespace {

struct {
  // Never closed: a handler may run at any time.
  volatile sig_atomic_t stopWrite = -1;
} signalState;

// If the pipe is full, the request is already in it.
void RequestStop(int /*signal*/) {
  const ErrnoKeeper keeper;
  [[maybe_unused]] const ssize_t written = write(signalState.stopWrite, "", 1);
}

void OnlyInterrupt(int /*signal*/) {}

// Without SA_RESTART, so that an interrupted call returns.
bool SetAction(int signal, void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  return sigaction(signal, &action, nullptr) == 0;
}

bool SetUp(int fd) {
  return fcntl(fd, F_SETFD, FD_CLOEXEC) == 0 && fcntl(fd, F_SETFL, O_NONBLOCK) == 0;
}

}  // namespace

int Signals_Install() {
  int ends[2];
  if (pipe(ends) != 0) return -1;
  Fd stopRead(ends[0]);
  signalState.stopWrite = ends[1];
  const bool ok = SetUp(ends[0]) && SetUp(ends[1]) && SetAction(SIGTERM, RequestStop) &&
                  SetAction(SIGINT, RequestStop) && SetAction(SIGALRM, OnlyInterrupt) &&
                  SetAction(SIGPIPE, SIG_IGN);
  return ok ? stopRead.Release() : -1;
}
