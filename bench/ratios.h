// ratios.h -- one line for each thing measured: our time, and its ratio to each peer's.
//
// Benchmarks are named ROW/ENGINE.  The fastest repetition of each counts, since other work on the
// machine only adds time.  At the end stands the geometric mean of the ratios to each peer.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <numeric>
#include <string>
#include <vector>

// How a peer is named, and the most that our time may be, divided by the peer's.
struct Peer {
  std::string name;
  double goal;
};

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
        ->Repetitions(7)
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
    std::map<std::string, std::vector<double>> logarithms;
    for (const auto &[row, peers] : rows_) {
      const auto ours = fastest_.find(row + "/" + kOurs);
      if (ours == fastest_.end()) continue;
      std::printf("%-24s %9.1f ns ", row.c_str(), ours->second);
      for (const Peer &peer : peers) {
        const auto other = fastest_.find(row + "/" + peer.name);
        if (other == fastest_.end()) continue;
        const double ratio = ours->second / other->second;
        logarithms[peer.name].push_back(std::log(ratio));
        std::printf("  %5.2f of %s%s", ratio, peer.name.c_str(),
                    ratio > peer.goal ? " (over)" : "");
      }
      std::printf("\n");
    }
    std::printf("%-24s %12s ", "geometric mean", "");
    for (const auto &[peer, all] : logarithms) {
      const double sum = std::accumulate(all.begin(), all.end(), 0.0);
      std::printf("  %5.2f of %s", std::exp(sum / static_cast<double>(all.size())), peer.c_str());
    }
    std::printf("\n");
  }

  // Runs everything that was added, with the program's options, and prints the table.
  int Main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks(this);
    Print();
    return 0;
  }
};
