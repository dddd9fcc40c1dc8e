// signals.cpp -- what signals do to the tool, and how COMMAND gets them.
// Tests: tests/system/lumenLocks_test

#include "tools/lumenLocks/signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "lib/public/errnoKeeper.h"
#include "tools/lumenLocks/lockTool.h"

namespace {

// Signals that would end the tool and leave its entry in the queue.
struct Row {
  int number;
  bool ofTerminal;  // sent to COMMAND as well
};
constexpr std::array kEnding{Row{SIGINT, true},   Row{SIGQUIT, true},  Row{SIGTERM, false},
                             Row{SIGHUP, false},  Row{SIGUSR1, false}, Row{SIGUSR2, false},
                             Row{SIGALRM, false}, Row{SIGXCPU, false}};

struct SignalState {
  int pipe[2];
  std::atomic<int> came;     // the first signal of the wait
  std::atomic<pid_t> child;  // COMMAND, or 0
  sigset_t caught;
  sigset_t maskBefore;
  struct sigaction before[kEnding.size()];
  struct sigaction childBefore, pipeBefore;
};
SignalState state{};
static_assert(std::atomic<int>::is_always_lock_free);

void OnSignal(int number) {
  const ErrnoKeeper keeper;
  if (const pid_t child = state.child; child > 0) {
    for (const Row &row : kEnding) {
      if (row.number == number && !row.ofTerminal) kill(child, number);
    }
    return;
  }
  int none = 0;
  state.came.compare_exchange_strong(none, number);
  (void)!write(state.pipe[1], "", 1);
}

bool MakePipe() {
  if (pipe(state.pipe) != 0) return false;
  for (const int end : state.pipe) {
    if (fcntl(end, F_SETFD, FD_CLOEXEC) != 0 || fcntl(end, F_SETFL, O_NONBLOCK) != 0) return false;
  }
  return true;
}

void SetAction(int number, void (*handler)(int), struct sigaction *before) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigaction(number, &action, before);
}

}  // namespace

Signals::Signals() {
  if (!MakePipe()) exit(Complain("no pipe is to be had"));
  sigemptyset(&state.caught);
  sigprocmask(SIG_SETMASK, nullptr, &state.maskBefore);
  for (size_t i = 0; i < kEnding.size(); i++) {
    const int number = kEnding[i].number;
    sigaction(number, nullptr, &state.before[i]);
    if (state.before[i].sa_handler == SIG_IGN) continue;
    sigaddset(&state.caught, number);
    SetAction(number, OnSignal, nullptr);
  }
  // If it is ignored, the kernel does not keep COMMAND's status.
  SetAction(SIGCHLD, SIG_DFL, &state.childBefore);
  // A message to a closed pipe must not end the tool and leave its entry.
  SetAction(SIGPIPE, SIG_IGN, &state.pipeBefore);
}

int Signals::Descriptor() const {
  return state.pipe[0];
}

int Signals::Hold() {
  sigprocmask(SIG_BLOCK, &state.caught, nullptr);
  return state.came;
}

void Signals::Restore() const {
  for (size_t i = 0; i < kEnding.size(); i++) {
    sigaction(kEnding[i].number, &state.before[i], nullptr);
  }
  sigaction(SIGCHLD, &state.childBefore, nullptr);
  sigaction(SIGPIPE, &state.pipeBefore, nullptr);
  sigprocmask(SIG_SETMASK, &state.maskBefore, nullptr);
}

void Signals::PassTo(pid_t child) {
  // What the terminal has sent before the fork has only reached the tool.
  sigset_t pending;
  sigpending(&pending);
  for (const Row &row : kEnding) {
    const bool keptBack =
        sigismember(&pending, row.number) == 1 && sigismember(&state.maskBefore, row.number) == 0;
    if (row.ofTerminal && keptBack) kill(child, row.number);
  }
  state.child = child;
  sigprocmask(SIG_SETMASK, &state.maskBefore, nullptr);
}

void Signals::EndBy(int number) {
  signal(number, SIG_DFL);
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, number);
  sigprocmask(SIG_UNBLOCK, &one, nullptr);
  raise(number);
  exit(kSignalBase + number);
}
