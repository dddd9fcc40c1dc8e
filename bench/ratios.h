// ratios.h -- Google Benchmark's results as ratios: one line for each thing measured and each peer.
//
// Benchmarks are named ROW/ENGINE.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "bench/report.h"

// Which of the repetitions counts.
enum class By {
  fastest,  // other work on the machine only adds time
  median,   // of threads that meet, of which some meet less than others
};

class Ratios : public benchmark::ConsoleReporter {
  static constexpr const char *kOurs = "lumen";
  struct Row {
    std::string name;
    std::vector<Peer> peers;
    By by;
  };
  std::vector<Row> rows_;
  std::map<std::string, std::vector<double>> times_;

  double Typical(const std::string &name, By by) {
    std::vector<double> &times = times_[name];
    std::sort(times.begin(), times.end());
    return times.empty() ? 0 : times[by == By::fastest ? 0 : times.size() / 2];
  }

 public:
  Ratios() : ConsoleReporter(OO_Tabular) {}

  // A row; then Add for `lumen` and for each of its peers.
  void AddRow(const std::string &row, const std::vector<Peer> &peers, By by = By::fastest) {
    rows_.push_back({row, peers, by});
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
      // A time that the benchmark took by itself is by the clock on the wall.
      const double time =
          run.run_name.time_type.empty() ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
      times_[run.run_name.function_name].push_back(time);
    }
  }

  // Leaves out what was not measured.
  void Print() {
    for (const Row &row : rows_) {
      const double ours = Typical(row.name + "/" + kOurs, row.by);
      for (const Peer &peer : row.peers) {
        const double theirs = Typical(row.name + "/" + peer.name, row.by);
        if (ours > 0 && theirs > 0) ReportRatio(row.name, "ns", ours, peer, theirs);
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
