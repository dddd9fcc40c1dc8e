// lockCrowd_test.cpp -- many processes and threads that take one lock, exclusive or shared at random.
//
// Whoever is inside looks at a witness in memory that all share: an exclusive holder must be alone.
// LUMEN_ROUNDS is how many times 1.5 seconds the crowd goes on, with more processes and threads if it
// is more than 10.
//
// The steps in which waiters look are shortened, or most of the time nothing would happen; a step
// of 200 ms, after 41 of which an entry directory is taken for a dead one's, less than others.

#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "lib/public/fileLock.h"
#include "tests/support/product.h"
#include "tests/support/scratchDir.h"

extern "C" {
int __wrap_poll(pollfd *fds, nfds_t count, int ms);
int __wrap_poll(pollfd *, nfds_t, int ms) {
  usleep(static_cast<useconds_t>(ms > 100 ? ms * 100 : ms * 20));
  return 0;
}
}

namespace {

using Clock = std::chrono::steady_clock;

// Shared by all processes.
struct Witness {
  std::atomic<int> writers, readers, violations, failures, holders;
};

void TakeOften(const std::string &file, Witness *seen, int seed, Clock::time_point end) {
  std::mt19937 random(static_cast<unsigned>(seed));
  while (Clock::now() < end) {
    const bool readOnly = random() % 2 == 0;
    int error;
    FileLockToken *const token =
        FileLock_Lock(file.c_str(), readOnly, FILELOCK_INFINITE_WAIT, &error, nullptr);
    std::atomic<int> &mine = readOnly ? seen->readers : seen->writers;
    mine++;
    for (int i = 0; i < 3; i++) {
      if (seen->writers > 1 || (seen->writers == 1 && seen->readers > 0)) seen->violations++;
      sched_yield();
    }
    mine--;
    seen->holders++;
    if (token == nullptr || !FileLock_Unlock(token, &error, nullptr)) seen->failures++;
    if (random() % 4 == 0) usleep(static_cast<useconds_t>(random() % 2000));
  }
}

TEST(LockCrowd, OneWriterOrManyReaders) {
  const ScratchDir dir;
  const std::string file = dir.Path("file");
  auto *const seen = new (mmap(nullptr, sizeof(Witness), PROT_READ | PROT_WRITE,
                               MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Witness{};
  const int numProcesses = Rounds() > 10 ? 32 : 6, numThreads = Rounds() > 10 ? 8 : 3;
  const Clock::time_point end = Clock::now() + Rounds() * std::chrono::milliseconds(1500);
  for (int i = 0; i < numProcesses; i++) {
    if (fork() != 0) continue;
    std::vector<std::jthread> threads;
    for (int j = 0; j < numThreads; j++)
      threads.emplace_back(TakeOften, file, seen, 100 * i + j, end);
    threads.clear();
    _exit(0);
  }
  int status;
  while (wait(&status) > 0) EXPECT_EQ(0, status);
  EXPECT_EQ(0, seen->violations);
  EXPECT_EQ(0, seen->failures);
  EXPECT_LT(numProcesses, seen->holders);
  EXPECT_FALSE(std::filesystem::exists(file + ".lck"));
}

}  // namespace
