// wholeRuns.h -- measuring what runs once for each preparation, against programs of the system.
//
// Times are the processor's, of a program with its start: what a disk or other processes do does not
// count.
#pragma once

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

inline void Require(bool ok, const std::string &what) {
  if (ok) return;
  std::perror(what.c_str());
  exit(1);
}

inline void Shell(const std::string &command) {
  Require(system(command.c_str()) == 0, command);  // NOLINT(cert-env33-c): paths of our own
}

// A new folder in memory, or below TMPDIR if that is set, which goes with its contents.
class BenchFolder {
  std::string path_;

 public:
  BenchFolder() {
    const char *const parent = getenv("TMPDIR");
    path_ = std::string(parent == nullptr ? "/dev/shm" : parent) + "/lumen-XXXXXX";
    Require(mkdtemp(path_.data()) != nullptr, path_);
  }
  BenchFolder(const BenchFolder &) = delete;
  BenchFolder &operator=(const BenchFolder &) = delete;
  ~BenchFolder() { std::filesystem::remove_all(path_); }

  const std::string &Path() const { return path_; }
};

// The processor's time of this process and of those it has waited for, in seconds.
inline double ProcessorTime() {
  double seconds = 0;
  for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
    rusage usage;
    Require(getrusage(who, &usage) == 0, "getrusage");
    for (const timeval &time : {usage.ru_utime, usage.ru_stime}) {
      seconds += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    }
  }
  return seconds;
}

// Measures body() after prepare(), which is not measured.
inline void AddWholeRun(const std::string &name, const std::function<void()> &prepare,
                        const std::function<void()> &body) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [=](benchmark::State &state) {
                                 for (auto _ : state) {
                                   prepare();
                                   const double begin = ProcessorTime();
                                   body();
                                   state.SetIterationTime(ProcessorTime() - begin);
                                 }
                               })
      ->UseManualTime()
      ->Iterations(1)
      ->Repetitions(9)
      ->ReportAggregatesOnly(false);
}
