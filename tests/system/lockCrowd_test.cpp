// lockCrowd_test.cpp -- many processes and threads that take one lock, exclusive or shared at random.
//
// Whoever is inside looks at a witness in memory that all share: an exclusive holder must be alone.
// LUMEN_ROUNDS is how many times 1.5 seconds each crowd goes on (1 if not set), with more processes
// and threads if it is more than 10.
//
// The steps in which waiters look are shortened, or most of the time nothing would happen; a step
// of 200 ms, after 41 of which an entry directory is taken for a dead one's, less than others.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "fileLock.h"
#include "lib/file/fileLockInt.h"
#include "tests/support/scratchDir.h"
#include "uuid.h"

namespace {
const char *machine = nullptr;  // another one than this, if not null
}

extern "C" {
int __real_nanosleep(const timespec *time, timespec *left);
int __wrap_nanosleep(const timespec *time, timespec *left);
int __wrap_nanosleep(const timespec *time, timespec *left) {
  const int factor = time->tv_nsec == 200'000'000 ? 10 : 50;
  const timespec less = {time->tv_sec / factor, time->tv_nsec / factor};
  return __real_nanosleep(&less, left);
}
// const char *UUID_HostString()
const char *__real__Z15UUID_HostStringv();
const char *__wrap__Z15UUID_HostStringv();
const char *__wrap__Z15UUID_HostStringv() {
  return machine != nullptr ? machine : __real__Z15UUID_HostStringv();
}
}

namespace {

int Rounds() {
  const char *const rounds = getenv("LUMEN_ROUNDS");
  return rounds == nullptr ? 1 : std::max(1, atoi(rounds));
}

// Shared by all processes.
struct Witness {
  std::atomic<int> writers, readers, violations, failures, holders;
};

using Clock = std::chrono::steady_clock;

class LockCrowd : public testing::TestWithParam<bool> {
 protected:
  ScratchDir dir_;
  const std::string file_ = dir_.Path("file");
  Witness *const seen_ = new (mmap(nullptr, sizeof(Witness), PROT_READ | PROT_WRITE,
                                   MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Witness{};
  const int numProcesses_ = Rounds() > 10 ? 32 : 6;
  const int numThreads_ = Rounds() > 10 ? 8 : 3;
  const Clock::time_point end_ = Clock::now() + Rounds() * std::chrono::milliseconds(1500);

  ~LockCrowd() override { munmap(seen_, sizeof *seen_); }

  void Inside(bool readOnly) {
    std::atomic<int> &mine = readOnly ? seen_->readers : seen_->writers;
    mine++;
    for (int i = 0; i < 3; i++) {
      const bool alone = seen_->writers == 1 && seen_->readers == 0;
      if (readOnly ? seen_->writers != 0 : !alone) seen_->violations++;
      sched_yield();
    }
    mine--;
    seen_->holders++;
  }

  void TakeOften(int seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    while (Clock::now() < end_) {
      const bool readOnly = random() % 2 == 0;
      int error;
      FileLockToken *const token =
          FileLock_Lock(file_.c_str(), readOnly, FILELOCK_INFINITE_WAIT, &error, nullptr);
      if (token != nullptr) Inside(readOnly);
      if (token == nullptr || !FileLock_Unlock(token, &error, nullptr)) seen_->failures++;
      if (random() % 4 == 0) usleep(static_cast<useconds_t>(random() % 2000));
    }
  }

  // A process with threads that take the lock.
  pid_t Start(int number) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    std::vector<std::jthread> threads;
    for (int i = 0; i < numThreads_; i++) {
      threads.emplace_back(&LockCrowd::TakeOften, this, 100 * number + i);
    }
    threads.clear();
    _exit(0);
  }
};

// With the parameter, every second process is on another machine.
TEST_P(LockCrowd, OneWriterOrManyReaders) {
  std::vector<pid_t> crowd;
  for (int i = 0; i < numProcesses_; i++) {
    machine = GetParam() && i % 2 == 1 ? "another machine" : nullptr;
    crowd.push_back(Start(i));
  }
  for (const pid_t pid : crowd) {
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(0, status);
  }
  printf("%d holders of %d processes with %d threads\n", seen_->holders.load(), numProcesses_,
         numThreads_);
  EXPECT_EQ(0, seen_->violations);
  EXPECT_EQ(0, seen_->failures);
  EXPECT_LT(numProcesses_, seen_->holders);
  EXPECT_FALSE(std::filesystem::exists(file_ + ".lck"));
}
INSTANTIATE_TEST_SUITE_P(OnOneAndTwoMachines, LockCrowd, testing::Bool());

}  // namespace
