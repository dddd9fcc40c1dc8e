// format_bench.cpp -- Str_Snprintf against the host's snprintf and {fmt}'s printf.
//
// The rows are formats of the system's own messages, with arguments as they come.  {fmt} runs its
// printf into a memory buffer on the stack, its fastest way.  At the end stands a table of ratios,
// for each row from the fastest repetition of each engine, since other work on the machine only
// adds time.
//
//   format_bench [options of Google Benchmark]

#include <benchmark/benchmark.h>
#include <fmt/printf.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "str.h"

namespace {

constexpr size_t kBufferSize = 1024;
constexpr double kGoal = 0.8;

enum Engine { kLumen, kHost, kFmt, kEngines };
constexpr const char *kEngineNames[kEngines] = {"lumen", "host", "fmt"};

// Names of rows in the order of the table.
std::vector<std::string> &RowNames() {
  static std::vector<std::string> names;
  return names;
}

template <typename F>
void Add(const std::string &row, Engine engine, F format) {
  benchmark::RegisterBenchmark((row + "/" + kEngineNames[engine]).c_str(),
                               [format](benchmark::State &state) {
                                 char buffer[kBufferSize];
                                 for (auto _ : state) {
                                   benchmark::DoNotOptimize(format(buffer));
                                   benchmark::ClobberMemory();
                                 }
                               })
      ->Repetitions(7)
      ->MinTime(0.02)
      ->ReportAggregatesOnly(false);
}

// A pointer that the compiler knows nothing about, so that no engine gets a head start.
const char *Hidden(const char *p) {
  asm volatile("" : "+r"(p));
  return p;
}

// One row: the same format and arguments for each engine.
template <typename... Args>
void AddRow(const std::string &row, const char *format, Args... args) {
  RowNames().push_back(row);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  Add(row, kLumen,
      [=](char *to) { return Str_Snprintf(to, kBufferSize, Hidden(format), args...); });
  Add(row, kHost, [=](char *to) { return snprintf(to, kBufferSize, Hidden(format), args...); });
#pragma GCC diagnostic pop
  Add(row, kFmt, [=](char *to) {
    fmt::basic_memory_buffer<char, kBufferSize> buffer;
    fmt::detail::vprintf(static_cast<fmt::detail::buffer<char> &>(buffer),
                         fmt::string_view(Hidden(format)),
                         fmt::printf_args(fmt::make_printf_args(args...)));
    benchmark::DoNotOptimize(to);
    benchmark::DoNotOptimize(buffer.data());
    return static_cast<int>(buffer.size());
  });
}

void AddRows() {
  static const char path[] =
      "/Library/Application Support/Zephrin/Zephrin Calder Lumen/Services/Contents";
  AddRow("log prefix", "%04d-%02d-%02dT%02d:%02d:%02d.%03d| ", 2024, 3, 5, 9, 7, 2, 45);
  AddRow("name, errno", "%s: bind errno %d.\n", "ServiceImplPickSockSide", 48);
  AddRow("name, pid", "%s: PID %u\n", "Hostinfo_Daemonize", 40817u);
  AddRow("exec failure", "%s: Child could not exec %s, read %d, error %u.\n", "Hostinfo_Daemonize",
         path, 4, 2u);
  AddRow("join", "%s%s", path, "/MacOS");
  AddRow("path", "%s/%s%s", path, "MacOS/lumen-daemon", ".lck");
  AddRow("file line", "FILE: %s creation failure on '%s': %s\n", "FileLockCreate", path,
         "Permission denied");
  AddRow("file sizes", "FILE: %s file '%s': size %llu, required size %zd\n", "FileLockReadMember",
         "M40817.lck", 1234567890123ULL, static_cast<ssize_t>(512));
  AddRow("fatal place", "NOT_REACHED %s:%d\n", "lib/unicode/unicodeSimpleOperations", 208);
  AddRow("lock member", "M%05u%s", 40817u, ".lck");
  AddRow("lock field", "%u-%llu", 40817u, 0x123456789abcULL);
  AddRow("lock state", "\tsignature 0x%X\n", 0xdeadbeefu);
  AddRow("host id",
         "%02x %02x %02x %02x %02x %02x %02x %02x-%02x %02x %02x %02x %02x %02x %02x %02x", 0x52,
         0x9a, 0x03, 0xff, 0x10, 0x77, 0x00, 0xc4, 0xde, 0xad, 0x0b, 0x0e, 0x60, 0x0d, 0xf0, 0x0f);
  AddRow("contention", "HOT LOCK (%s); contention ratio %f\n", "fileSimpleRandomLock", 0.173205);
}

// Keeps the fastest repetition of every row and engine.
class RatioReporter : public benchmark::ConsoleReporter {
  std::map<std::string, double> fastest_;

 public:
  RatioReporter() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      const double time = run.GetAdjustedCPUTime();
      const auto [at, isNew] = fastest_.emplace(run.run_name.function_name, time);
      if (!isNew) at->second = std::min(at->second, time);
    }
  }

  void PrintRatios() const {
    printf("%-14s %9s %9s %9s %12s %11s\n", "", "lumen ns", "host ns", "fmt ns", "lumen/host",
           "lumen/fmt");
    double logHost = 0;
    double logFmt = 0;
    int rows = 0;
    for (const std::string &row : RowNames()) {
      double time[kEngines];
      bool complete = true;
      for (int engine = 0; engine < kEngines; ++engine) {
        const auto at = fastest_.find(row + "/" + kEngineNames[engine]);
        complete = complete && at != fastest_.end();
        if (complete) time[engine] = at->second;
      }
      if (!complete) continue;
      const double toHost = time[kLumen] / time[kHost];
      const double toFmt = time[kLumen] / time[kFmt];
      printf("%-14s %9.1f %9.1f %9.1f %12.2f %11.2f%s\n", row.c_str(), time[kLumen], time[kHost],
             time[kFmt], toHost, toFmt, toHost > kGoal || toFmt > 1 ? "  over" : "");
      logHost += std::log(toHost);
      logFmt += std::log(toFmt);
      ++rows;
    }
    if (rows == 0) return;
    printf("%-14s %29s %12.2f %11.2f   goal: %.2f, 1.00\n", "geometric mean", "",
           std::exp(logHost / rows), std::exp(logFmt / rows), kGoal);
  }
};

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  AddRows();
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  return 0;
}
