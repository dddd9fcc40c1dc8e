// lockFile_bench.cpp -- the portable lock: taken and released alone, against liblockfile, and as a
// program against that library's own; and fought for by many processes.
//
// The peer leaves one file with the process's number: 9 system calls that count, where the lock that
// keeps an order and has shared holders needs 24.  So three times its time is what to expect of the
// procedures; programs spend most of theirs on starting.

#include <lockfile.h>
#include <sys/mman.h>
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
  std::atomic<int64_t> longestNs;
};

void Fight(const std::string &path, Score *score, Clock::time_point end) {
  while (Clock::now() < end) {
    int error;
    const Clock::time_point begin = Clock::now();
    FileLockToken *const token =
        FileLock_Lock(path.c_str(), false, FILELOCK_INFINITE_WAIT, &error, nullptr);
    const int64_t waited = (Clock::now() - begin).count();
    if (token == nullptr || !FileLock_Unlock(token, &error, nullptr)) abort();
    score->turns++;
    int64_t longest = score->longestNs;
    while (longest < waited && !score->longestNs.compare_exchange_weak(longest, waited)) {
    }
  }
}

void PrintFight(const std::string &path, int numProcesses) {
  constexpr int kSeconds = 4;
  auto *const score =
      new (mmap(nullptr, sizeof(Score), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))
          Score{};
  const Clock::time_point begin = Clock::now();
  for (int i = 0; i < numProcesses; i++) {
    if (fork() != 0) continue;
    Fight(path, score, begin + std::chrono::seconds(kSeconds));
    _exit(0);
  }
  while (wait(nullptr) > 0) {
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  std::printf("%9d %18.1f %16.0f ms\n", numProcesses, score->turns / seconds,
              static_cast<double>(score->longestNs) / 1e6);
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
  std::printf("\nprocesses     turns a second     longest wait\n");
  for (const int numProcesses : {1, 2, 4, 8, 16}) PrintFight(path, numProcesses);
  return status;
}
