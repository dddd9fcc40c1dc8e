// lock_bench.cpp -- locks against the host's mutexes and the C++ library's recursive one.
//
// Rows:  acquisition and release of a free lock, for both kinds; the same for a lock that the caller
//        holds already; and two threads fighting for one lock, each of which changes a counter under
//        it and another without it, by the clock on the wall.
// Goals: a free lock costs at most a tenth more than std::recursive_mutex and three tenths more than
//        a plain mutex, which knows no owner.  The other rows no more than what they are compared
//        with.
//
//   lock_bench [options of Google Benchmark]

#include <pthread.h>

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

// Nanoseconds of two threads for `rounds` acquisitions each.
template <typename Lock>
double TimeOfFight(int64_t rounds) {
  Lock lock;
  std::latch start(3);
  int64_t shared = 0;
  const auto fight = [&] {
    volatile int64_t own = 0;
    start.arrive_and_wait();
    for (int64_t i = 0; i < rounds; i++) {
      lock.lock();
      shared = shared + 1;
      lock.unlock();
      for (int n = 0; n < 20; n++) own = own + n;
    }
  };
  std::thread first(fight);
  std::thread second(fight);
  const auto begin = std::chrono::steady_clock::now();
  start.arrive_and_wait();
  first.join();
  second.join();
  benchmark::DoNotOptimize(shared);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

template <typename Lock>
void AddFight(const std::string &row, const std::string &engine) {
  constexpr int64_t kRounds = 200'000;
  benchmark::RegisterBenchmark(
      (row + "/" + engine).c_str(),
      [](benchmark::State &state) {
        for (auto _ : state) {
          state.SetIterationTime(TimeOfFight<Lock>(kRounds) / (2 * kRounds));
        }
      })
      ->UseManualTime()
      ->Iterations(1)
      ->Repetitions(15)
      ->ReportAggregatesOnly(false);
}

}  // namespace

int main(int argc, char **argv) {
  Ratios ratios;
  const std::vector<Peer> free = {{"std recursive", 1.1}, {"plain", 1.3}};
  ratios.AddRow("exclusive, free", free);
  AddFree<Exclusive>("exclusive, free", "lumen");
  AddFree<std::recursive_mutex>("exclusive, free", "std recursive");
  AddFree<Plain>("exclusive, free", "plain");

  ratios.AddRow("recursive, free", free);
  AddFree<Recursive>("recursive, free", "lumen");
  AddFree<std::recursive_mutex>("recursive, free", "std recursive");
  AddFree<Plain>("recursive, free", "plain");

  ratios.AddRow("held already", {{"native recursive", 1.0}});
  AddNested<Recursive>("held already", "lumen");
  AddNested<NativeRecursive>("held already", "native recursive");

  ratios.AddRow("two threads", {{"std recursive", 1.0}});
  AddFight<Recursive>("two threads", "lumen");
  AddFight<std::recursive_mutex>("two threads", "std recursive");
  return ratios.Main(argc, argv);
}
