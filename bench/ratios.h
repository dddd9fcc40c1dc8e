// ratios.h -- Google Benchmark's results as ratios: one line for each thing measured and each peer.
//
// Benchmarks are named ROW/ENGINE.  The fastest repetition of each counts, since other work on the
// machine only adds time.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "bench/report.h"

class Ratios : public benchmark::ConsoleReporter {
  static constexpr const char *kOurs = "lumen";
  std::vector<std::pair<std::string, std::vector<Peer>>> rows_;
  std::map<std::string, double> fastest_;

 public:
  Ratios() : ConsoleReporter(OO_Tabular) {}

  // A row; then Add for `lumen` and for each of its peers.
  void AddRow(const std::string &row, const std::vector<Peer> &peers) {
    rows_.emplace_back(row, peers);
  }

  // Measures body(), whose result must depend on what is measured.
  template <typename F>
  static void Add(const std::string &row, const std::string &engine, F body) {
    benchmark::RegisterBenchmark((row + "/" + engine).c_str(),
                                 [body](benchmark::State &state) mutable {
                                   for (auto _ : state) {
                                     benchmark::DoNotOptimize(body());
                                     benchmark::ClobberMemory();
                                   }
                                 })
        ->Repetitions(11)
        ->MinTime(0.02)
        ->ReportAggregatesOnly(false);
  }

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      // Threads are timed by the clock on the wall.
      const double time =
          run.run_name.time_type.empty() ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
      const auto [at, isNew] = fastest_.emplace(run.run_name.function_name, time);
      if (!isNew) at->second = std::min(at->second, time);
    }
  }

  void Print() const {
    for (const auto &[row, peers] : rows_) {
      const auto ours = fastest_.find(row + "/" + kOurs);
      if (ours == fastest_.end()) continue;
      for (const Peer &peer : peers) {
        const auto other = fastest_.find(row + "/" + peer.name);
        if (other != fastest_.end()) ReportRatio(row, "ns", ours->second, peer, other->second);
      }
    }
  }

  // Runs everything that was added, with the program's options, and prints the table.  Repetitions
  // take turns at random, so that a machine that is slower for a second is so for everybody.
  int Main(int argc, char **argv) {
    std::string takeTurns = "--benchmark_enable_random_interleaving=true";
    std::vector<char *> words(argv, argv + argc);
    words.insert(words.begin() + 1, takeTurns.data());
    argc = static_cast<int>(words.size());
    words.push_back(nullptr);
    benchmark::Initialize(&argc, words.data());
    if (benchmark::ReportUnrecognizedArguments(argc, words.data())) return 1;
    benchmark::RunSpecifiedBenchmarks(this);
    Print();
    return 0;
  }
};
