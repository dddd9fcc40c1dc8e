// fileSleeper.cpp -- random sleeps, so that waiters for the same thing do not meet for ever.
// Tests: tests/unit/fileLock_test.cpp

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "lib/file/lock/fileLockInt.h"
#include "lib/public/monotonicClock.h"
#include "lib/public/mxUser.h"

namespace {

constexpr MX_Rank kRandomRank = 0xFF000000;

// PCG-XSH-RR: O'Neill, "PCG: A Family of Simple Fast Space-Efficient Statistically Good Algorithms
// for Random Number Generation".
struct Generator {
  uint64_t state;

  uint32_t Next() {
    const uint64_t old = state;
    state = old * 6364136223846793005U + 1442695040888963407U;
    const auto shifted = static_cast<uint32_t>((old >> 18 ^ old) >> 27);
    const auto rotation = static_cast<uint32_t>(old >> 59);
    return shifted >> rotation | shifted << (-rotation & 31);
  }
};

struct SleeperState {
  std::atomic<MXUserExclLock *> lock;
  Generator generator;
  pid_t seededFor;  // a child must not draw what its parent draws
};
constinit SleeperState chance{};

// Errno-style: waits for `ms` or, with ECANCELED, until there is something to be said of the
// descriptor.  poll(2) leaves out a negative one.
int PollFor(uint32_t ms, int cancelFd) {
  const int64_t end = MonotonicClock_Ms() + ms;
  pollfd watched = {.fd = cancelFd, .events = POLLIN, .revents = 0};
  for (int64_t left = ms; left > 0; left = end - MonotonicClock_Ms()) {
    const int ready = poll(&watched, 1, static_cast<int>(left));
    if (ready > 0) return ECANCELED;
    if (ready < 0 && errno != EINTR) return errno;
  }
  return 0;
}

}  // namespace

uint32_t FileSimpleRandom() {
  MXUserExclLock *const lock =
      MXUser_CreateSingletonExclLock(&chance.lock, "fileSimpleRandomLock", kRandomRank);
  MXUser_AcquireExclLock(lock);
  const pid_t self = getpid();
  if (chance.seededFor != self) {
    chance.seededFor = self;
    chance.generator.state = static_cast<uint64_t>(self);
    chance.generator.Next();  // neighbours begin with neighbouring states
  }
  const uint32_t number = chance.generator.Next();
  MXUser_ReleaseExclLock(lock);
  return number;
}

uint32_t FileSleeper(uint32_t lo, uint32_t hi, int cancelFd, int *error) {
  const uint64_t range = hi > lo ? hi - lo : 0;
  const uint32_t ms = lo + static_cast<uint32_t>(range * FileSimpleRandom() >> 32);
  *error = PollFor(ms, cancelFd);
  return ms;
}

int FileLockPause(const FileLockRequest &request, uint32_t lo, uint32_t hi) {
  uint32_t leftMs = UINT32_MAX;
  if (request.msecMaxWait != FILELOCK_INFINITE_WAIT) {
    const int64_t elapsedMs = MonotonicClock_Ms() - request.startMs;
    if (elapsedMs >= request.msecMaxWait) return EAGAIN;
    leftMs = request.msecMaxWait - static_cast<uint32_t>(elapsedMs);
  }
  int error;
  FileSleeper(std::min(lo, leftMs), std::min(hi, leftMs), request.cancelFd, &error);
  return error;
}
