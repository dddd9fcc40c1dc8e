// lockCrowd_test.cpp -- many processes and threads that take one lock, exclusive or shared at random.
//
// Anyone inside also takes a flock(2) on a witness: where that is refused, two hold the lock that must
// not.  LUMEN_ROUNDS is how many times 1.5 seconds the crowd goes on, with more processes and threads
// if it is more than 10.  `lockCrowd_test --take FILE MILLISECONDS` is one process of a crowd that
// lockWriters_test makes; it is killed at times.
//
// The steps in which waiters look are shortened, or most of the time nothing would happen; a step
// of 200 ms, after 41 of which an entry directory is taken for a dead one's, less than others.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "lib/public/fd.h"
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
using std::chrono::milliseconds;

// Shared by all processes.
struct Counts {
  std::atomic<int> holders, failures;
};

void TakeOften(const std::string &file, Counts *counts, bool dies, unsigned seed,
               Clock::time_point end) {
  std::mt19937 random(seed);
  while (Clock::now() < end) {
    const bool readOnly = random() % 2 == 0;
    int error;
    FileLockToken *const token =
        FileLock_Lock(file.c_str(), readOnly, FILELOCK_INFINITE_WAIT, &error, nullptr);
    // With the steps shortened, less than a second without the processor looks like a death.
    if (token == nullptr && error == ENOENT) continue;
    {
      const Fd witness(open((file + ".witness").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666));
      if (flock(witness.Get(), (readOnly ? LOCK_SH : LOCK_EX) | LOCK_NB) != 0) counts->failures++;
      sched_yield();
      if (dies && counts->holders > 5 && random() % 10 == 0) raise(SIGKILL);
    }
    counts->holders++;
    if (token == nullptr || !FileLock_Unlock(token, &error, nullptr)) counts->failures++;
    if (random() % 4 == 0) usleep(static_cast<useconds_t>(random() % 2000));
  }
}

TEST(LockCrowd, OneWriterOrManyReaders) {
  const ScratchDir dir;
  const std::string file = dir.Path("file");
  auto *const counts =
      new (mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
          Counts{};
  const unsigned numProcesses = Rounds() > 10 ? 32 : 6, numThreads = Rounds() > 10 ? 8 : 3;
  const Clock::time_point end = Clock::now() + Rounds() * milliseconds(1500);
  for (unsigned i = 0; i < numProcesses; i++) {
    if (fork() != 0) continue;
    std::vector<std::jthread> threads;
    for (unsigned j = 0; j < numThreads; j++)
      threads.emplace_back(TakeOften, file, counts, false, 100 * i + j, end);
    threads.clear();
    _exit(0);
  }
  int status;
  while (wait(&status) > 0) EXPECT_EQ(0, status);
  EXPECT_EQ(0, counts->failures);
  EXPECT_LT(numProcesses, counts->holders);
  EXPECT_FALSE(std::filesystem::exists(file + ".lck"));
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  if (argc != 4) return RUN_ALL_TESTS();
  Counts counts{};
  TakeOften(argv[2], &counts, true, static_cast<unsigned>(getpid()),
            Clock::now() + milliseconds(atoi(argv[3])));
  return counts.failures == 0 ? 0 : 3;
}
