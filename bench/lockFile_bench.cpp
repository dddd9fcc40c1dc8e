// lockFile_bench.cpp -- the portable lock: taken and released alone, against liblockfile, and as a
// program against that library's own; and fought for by many processes, also where each call of the
// file system takes long.
//
// The peer leaves one file with the process's number: 9 system calls that count, where the lock that
// keeps an order and has shared holders needs 26.  So three times its time is what to expect of the
// procedures; programs spend most of theirs on starting.

#include <dirent.h>
#include <lockfile.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "bench/ratios.h"
#include "bench/wholeRuns.h"
#include "lib/public/fileLock.h"

namespace {

using Clock = std::chrono::steady_clock;

unsigned slowMs = 0;

bool TakeAndRelease(const std::string &path, bool readOnly) {
  int error;
  FileLockToken *const token =
      FileLock_Lock(path.c_str(), readOnly, FILELOCK_INFINITE_WAIT, &error, nullptr);
  return token != nullptr && FileLock_Unlock(token, &error, nullptr);
}

bool TakeAndReleasePeer(const std::string &path) {
  return lockfile_create(path.c_str(), 0, L_PID) == L_SUCCESS && lockfile_remove(path.c_str()) == 0;
}

// As Ratios::Add, by the clock on the wall: file systems and other programs make us wait.
template <typename F>
void AddTimed(const std::string &row, const std::string &engine, F body) {
  benchmark::RegisterBenchmark(
      (row + "/" + engine).c_str(),
      [body](benchmark::State &state) {
        for (auto _ : state) {
          const Clock::time_point begin = Clock::now();
          if (!body()) state.SkipWithError("no lock");
          state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
        }
      })
      ->UseManualTime()
      ->Repetitions(7)
      ->MinTime(0.02)
      ->ReportAggregatesOnly(false);
}

// What a crowd has done, in memory that its processes share.
struct Score {
  std::atomic<int> turns;
  std::atomic<int64_t> longestMs;
};

// A crowd of processes that do nothing but take the lock and release it.
struct Storm {
  int processes;
  unsigned slowMs;  // what each call takes
  uint32_t limitMs;
};

void Fight(const std::string &path, const Storm &storm, Score *score, Clock::time_point end) {
  slowMs = storm.slowMs;
  while (Clock::now() < end) {
    int error;
    const Clock::time_point begin = Clock::now();
    FileLockToken *const token = FileLock_Lock(path.c_str(), false, storm.limitMs, &error, nullptr);
    const int64_t waited =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
    if (token != nullptr && FileLock_Unlock(token, &error, nullptr)) score->turns++;
    int64_t longest = score->longestMs;
    while (longest < waited && !score->longestMs.compare_exchange_weak(longest, waited)) {
    }
  }
}

void PrintStorm(const std::string &path, const Storm &storm) {
  constexpr int kSeconds = 4;
  auto *const score =
      new (mmap(nullptr, sizeof(Score), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
          Score{};
  const Clock::time_point begin = Clock::now();
  for (int i = 0; i < storm.processes; i++) {
    if (fork() != 0) continue;
    Fight(path, storm, score, begin + std::chrono::seconds(kSeconds));
    _exit(0);
  }
  while (wait(nullptr) > 0) {
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  const std::string limit =
      storm.limitMs == FILELOCK_INFINITE_WAIT ? "none" : std::to_string(storm.limitMs) + " ms";
  std::printf("%9d %9u ms %9s %12.1f %11lld ms\n", storm.processes, storm.slowMs, limit.c_str(),
              score->turns / seconds, static_cast<long long>(score->longestMs));
  munmap(score, sizeof *score);
}

}  // namespace

int main(int argc, char **argv) {
  const BenchFolder dir;
  const std::string path = dir.Path() + "/file";
  Ratios ratios;
  for (const bool readOnly : {false, true}) {
    const std::string row = readOnly ? "shared, alone" : "exclusive, alone";
    ratios.AddRow(row, {{"liblockfile", 3.0}});
    AddTimed(row, "lumen", [=] { return TakeAndRelease(path, readOnly); });
    AddTimed(row, "liblockfile", [=] { return TakeAndReleasePeer(path + ".lock"); });
  }
  ratios.AddRow("as a program", {{"dotlockfile", 2.0}});
  AddTimed("as a program", "lumen", [=] {
    Shell(LUMEN_LOCKS " run " + path + " /bin/true");
    return true;
  });
  AddTimed("as a program", "dotlockfile", [=] {
    Shell("dotlockfile -l " + path + ".lock && /bin/true && dotlockfile -u " + path + ".lock");
    return true;
  });
  const int status = ratios.Main(argc, argv);
  std::printf("\nprocesses  each call     limit turns/second  longest wait\n");
  for (const int processes : {1, 2, 4, 8, 16}) {
    PrintStorm(path, {processes, 0, FILELOCK_INFINITE_WAIT});
  }
  for (const uint32_t limitMs : {FILELOCK_TRYLOCK_WAIT, 500U, FILELOCK_INFINITE_WAIT}) {
    PrintStorm(path, {16, 5, limitMs});
  }
  return status;
}

// Calls of the library, slowed down.
#define SLOWED(symbol, Result, parameters, arguments) \
  Result __real_##symbol parameters;                  \
  Result __wrap_##symbol parameters {                 \
    if (slowMs > 0) usleep(1000U * slowMs);           \
    return __real_##symbol arguments;                 \
  }
extern "C" {
SLOWED(mkdir, int, (const char *path, mode_t mode), (path, mode))
SLOWED(open, int, (const char *path, int flags, mode_t mode), (path, flags, mode))
SLOWED(opendir, DIR *, (const char *path), (path))
SLOWED(rename, int, (const char *from, const char *to), (from, to))
SLOWED(rmdir, int, (const char *path), (path))
SLOWED(stat, int, (const char *path, struct stat *out), (path, out))
SLOWED(unlink, int, (const char *path), (path))
}
