// lock_bench.cpp -- locks against the host's mutexes and the C++ library's recursive one.
//
// Regimes: glibc leaves the locked instructions out until a process starts its first thread, which makes
//          all locks three times as fast.  So there are two regimes, each in a process of its own:
//          "alone", and "threads", where a second thread is there but waits.
// Rows:    acquisition and release of a free lock, for both kinds; the same for a lock that the caller
//          holds already; with threads also while another thread counts references to the lock; and
//          two threads fighting for one lock, each of which changes a counter under it and another
//          without it.
// Goals:   no more than std::recursive_mutex in either regime, and with threads a tenth more than a
//          plain mutex, which knows no owner; a tenth more than std::recursive_mutex for threads that
//          fight, since the lock keeps its owner beside the mutex's.
//
//   lock_bench [options of Google Benchmark]

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <latch>
#include <memory>
#include <mutex>
#include <thread>

#include "bench/ratios.h"
#include "lib/public/mxUser.h"

namespace {

// ---- the locks ------------------------------------------------------------------------------

class Exclusive {
  MXUserExclLock *const lock_ = MXUser_CreateExclLock("bench", 0);

 public:
  Exclusive() = default;
  Exclusive(const Exclusive &) = delete;
  Exclusive &operator=(const Exclusive &) = delete;
  ~Exclusive() { MXUser_DestroyExclLock(lock_); }
  void lock() { MXUser_AcquireExclLock(lock_); }
  void unlock() { MXUser_ReleaseExclLock(lock_); }
};

class Recursive {
  MXUserRecLock *const lock_ = MXUser_CreateRecLock("bench", 0);

 public:
  Recursive() = default;
  Recursive(const Recursive &) = delete;
  Recursive &operator=(const Recursive &) = delete;
  ~Recursive() { MXUser_DestroyRecLock(lock_); }
  void lock() { MXUser_AcquireRecLock(lock_); }
  void unlock() { MXUser_ReleaseRecLock(lock_); }
  void CountReference() {
    MXUser_IncRefRecLock(lock_);
    MXUser_DecRefRecLock(lock_);
  }
};

// With a count that has a cache line for itself.
class CountedRecursive : public std::recursive_mutex {
  alignas(64) std::atomic<uint32_t> count_ = 1;

 public:
  void CountReference() {
    count_.fetch_add(1, std::memory_order_relaxed);
    count_.fetch_sub(1, std::memory_order_acq_rel);
  }
};

// On the heap, like those of the library.
template <int kType>
class Native {
  const std::unique_ptr<pthread_mutex_t> mutex_ = std::make_unique<pthread_mutex_t>();

 public:
  Native() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, kType);
    pthread_mutex_init(mutex_.get(), &attributes);
    pthread_mutexattr_destroy(&attributes);
  }
  Native(const Native &) = delete;
  Native &operator=(const Native &) = delete;
  ~Native() { pthread_mutex_destroy(mutex_.get()); }
  void lock() { pthread_mutex_lock(mutex_.get()); }
  void unlock() { pthread_mutex_unlock(mutex_.get()); }
};
using Plain = Native<PTHREAD_MUTEX_DEFAULT>;
using NativeRecursive = Native<PTHREAD_MUTEX_RECURSIVE>;

// ---- rows -----------------------------------------------------------------------------------

template <typename Lock>
void AddFree(const std::string &row, const std::string &engine) {
  Ratios::Add(row, engine, [lock = std::make_shared<Lock>()] {
    lock->lock();
    lock->unlock();
    return 0;
  });
}

template <typename Lock>
void AddNested(const std::string &row, const std::string &engine) {
  const auto lock = std::make_shared<Lock>();
  Ratios::Add(row, engine, [lock, hold = std::make_shared<std::lock_guard<Lock>>(*lock)] {
    lock->lock();
    lock->unlock();
    return 0;
  });
}

// Acquisitions while another thread counts references.
template <typename Lock>
void AddCounted(const std::string &row, const std::string &engine) {
  benchmark::RegisterBenchmark((row + "/" + engine).c_str(),
                               [](benchmark::State &state) {
                                 Lock lock;
                                 std::atomic<bool> ends = false;
                                 std::thread counter([&] {
                                   while (!ends.load(std::memory_order_relaxed))
                                     lock.CountReference();
                                 });
                                 for (auto _ : state) {
                                   lock.lock();
                                   lock.unlock();
                                 }
                                 ends = true;
                                 counter.join();
                               })
      ->Repetitions(51)
      ->Iterations(100'000)
      ->ReportAggregatesOnly(false);
}

// Seconds that two threads need for `rounds` acquisitions each.  They wait for each other without sleeping
// and take the time themselves, so that nothing is measured but the fight.
template <typename Lock>
double TimeOfFight(int64_t rounds) {
  using Clock = std::chrono::steady_clock;
  // Lines of their own: what a lock guards seldom lies beside it.
  alignas(64) Lock lock;
  alignas(64) int64_t shared = 0;
  alignas(64) std::atomic<int> ready = 0;
  Clock::time_point begins[2], ends[2];
  const auto fight = [&](size_t me) {
    volatile int64_t own = 0;
    ready++;
    while (ready != 2) continue;
    begins[me] = Clock::now();
    for (int64_t i = 0; i < rounds; i++) {
      lock.lock();
      shared = shared + 1;
      lock.unlock();
      for (int n = 0; n < 20; n++) own = own + n;
    }
    ends[me] = Clock::now();
  };
  std::thread other(fight, 0);
  fight(1);
  other.join();
  benchmark::DoNotOptimize(shared);
  const auto time = std::max(ends[0], ends[1]) - std::min(begins[0], begins[1]);
  return std::chrono::duration<double>(time).count();
}

template <typename Lock>
void AddFight(const std::string &row, const std::string &engine) {
  constexpr int64_t kRounds = 5'000;
  benchmark::RegisterBenchmark(
      (row + "/" + engine).c_str(),
      [](benchmark::State &state) {
        for (auto _ : state) {
          state.SetIterationTime(TimeOfFight<Lock>(kRounds) / (2 * kRounds));
        }
      })
      ->UseManualTime()
      ->Iterations(1)
      ->Repetitions(401)
      ->ReportAggregatesOnly(false);
}

void AddRows(Ratios *ratios, const std::string &regime, const std::vector<Peer> &peers) {
  const std::string exclusive = "exclusive, " + regime, recursive = "recursive, " + regime,
                    held = "held already, " + regime;
  ratios->AddRow(exclusive, peers);
  AddFree<Exclusive>(exclusive, "lumen");
  ratios->AddRow(recursive, peers);
  AddFree<Recursive>(recursive, "lumen");
  for (const std::string &row : {exclusive, recursive}) {
    AddFree<std::recursive_mutex>(row, "std recursive");
    AddFree<Plain>(row, "plain");
  }
  ratios->AddRow(held, {{"native recursive", 1.0}});
  AddNested<Recursive>(held, "lumen");
  AddNested<NativeRecursive>(held, "native recursive");
}

int Alone(int argc, char **argv) {
  Ratios ratios;
  AddRows(&ratios, "alone", {{"std recursive", 1.0}});
  return ratios.Main(argc, argv);
}

int WithThreads(int argc, char **argv) {
  std::latch end(1);
  const std::jthread waits([&] { end.wait(); });
  Ratios ratios;
  AddRows(&ratios, "threads", {{"std recursive", 1.0}, {"plain", 1.1}});
  ratios.AddRow("references counted", {{"std recursive", 1.0}}, By::median);
  AddCounted<Recursive>("references counted", "lumen");
  AddCounted<CountedRecursive>("references counted", "std recursive");
  ratios.AddRow("two threads fight", {{"std recursive", 1.1}}, By::median);
  AddFight<Recursive>("two threads fight", "lumen");
  AddFight<std::recursive_mutex>("two threads fight", "std recursive");
  const int status = ratios.Main(argc, argv);
  end.count_down();
  return status;
}

// What a child process that runs `regime` exits with.
int InProcess(int (*regime)(int, char **), int argc, char **argv) {
  const pid_t child = fork();
  if (child == 0) exit(regime(argc, argv));
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return EXIT_FAILURE;
  return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char **argv) {
  const int alone = InProcess(Alone, argc, argv);
  const int withThreads = InProcess(WithThreads, argc, argv);
  return alone != 0 ? alone : withThreads;
}
