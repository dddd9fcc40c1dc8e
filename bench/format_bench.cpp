// format_bench.cpp -- Str_Snprintf against the host's snprintf and {fmt}'s printf.
//
// The rows are formats of the system's own messages, with arguments as they come, and their
// geometric mean; then doubles, ordinary ones and hard ones.  {fmt} runs its printf into a memory
// buffer on the stack, its fastest way.
//
//   format_bench [options of Google Benchmark]

#include <fmt/printf.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "bench/ratios.h"
#include "lib/public/str.h"

namespace {

constexpr size_t kBufferSize = 1024;

// A pointer that the compiler knows nothing about, so that no engine gets a head start.
const char *Hidden(const char *p) {
  asm volatile("" : "+r"(p));
  return p;
}

// The same format and arguments for us and the host.
template <typename... Args>
void AddHostRow(Ratios *ratios, const std::string &row, const std::vector<Peer> &peers,
                const char *format, Args... args) {
  static char to[kBufferSize];
  ratios->AddRow(row, peers);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  Ratios::Add(row, "lumen", [=] { return Str_Snprintf(to, kBufferSize, Hidden(format), args...); });
  Ratios::Add(row, "host", [=] { return snprintf(to, kBufferSize, Hidden(format), args...); });
#pragma GCC diagnostic pop
}

// The formats of the product, and their geometric mean.
class ProductRows : public Ratios {
  std::vector<std::string> rows_;
  std::map<std::string, double> fastest_;

  double MeanOf(const std::string &engine) {
    double sum = 0;
    for (const std::string &row : rows_) sum += std::log(fastest_[row + "/" + engine]);
    return std::exp(sum / static_cast<double>(rows_.size()));
  }

 public:
  void AddProductRow(const std::string &row) { rows_.push_back(row); }

  void ReportRuns(const std::vector<Run> &runs) override {
    Ratios::ReportRuns(runs);
    for (const Run &run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      const double time = run.GetAdjustedCPUTime();
      const auto [at, isNew] = fastest_.emplace(run.run_name.function_name, time);
      if (!isNew) at->second = std::min(at->second, time);
    }
  }

  void PrintMean(const Peer &peer) {
    for (const std::string &row : rows_) {
      if (!fastest_.contains(row + "/lumen")) return;  // left out by a filter
    }
    ReportRatio("product formats", "ns", MeanOf("lumen"), peer, MeanOf(peer.name));
  }
};

// A format of the product, which {fmt} prints, too.
template <typename... Args>
void AddRow(ProductRows *ratios, const std::string &row, const char *format, Args... args) {
  ratios->AddProductRow(row);
  AddHostRow(ratios, row, {{"host", 0.8}, {"fmt", 1}}, format, args...);
  Ratios::Add(row, "fmt", [=] {
    fmt::basic_memory_buffer<char, kBufferSize> buffer;
    fmt::detail::vprintf(static_cast<fmt::detail::buffer<char> &>(buffer),
                         fmt::string_view(Hidden(format)),
                         fmt::printf_args(fmt::make_printf_args(args...)));
    benchmark::DoNotOptimize(buffer.data());
    return buffer.size();
  });
}

void AddRows(ProductRows *ratios) {
  static const char path[] =
      "/Library/Application Support/Zephrin/Zephrin Calder Lumen/Services/Contents";
  AddRow(ratios, "log prefix", "%04d-%02d-%02dT%02d:%02d:%02d.%03d| ", 2024, 3, 5, 9, 7, 2, 45);
  AddRow(ratios, "name, errno", "%s: bind errno %d.\n", "ServiceImplPickSockSide", 48);
  AddRow(ratios, "name, pid", "%s: PID %u\n", "Hostinfo_Daemonize", 40817u);
  AddRow(ratios, "exec failure", "%s: Child could not exec %s, read %d, error %u.\n",
         "Hostinfo_Daemonize", path, 4, 2u);
  AddRow(ratios, "join", "%s%s", path, "/MacOS");
  AddRow(ratios, "path", "%s/%s%s", path, "MacOS/lumen-daemon", ".lck");
  AddRow(ratios, "file line", "FILE: %s creation failure on '%s': %s\n", "FileLockCreate", path,
         "Permission denied");
  AddRow(ratios, "file sizes", "FILE: %s file '%s': size %llu, required size %zd\n",
         "FileLockReadMember", "M40817.lck", 1234567890123ULL, static_cast<ssize_t>(512));
  AddRow(ratios, "fatal place", "NOT_REACHED %s:%d\n", "lib/unicode/unicodeSimpleOperations", 208);
  AddRow(ratios, "lock member", "M%05u%s", 40817u, ".lck");
  AddRow(ratios, "lock field", "%u-%llu", 40817u, 0x123456789abcULL);
  AddRow(ratios, "lock state", "\tsignature 0x%X\n", 0xdeadbeefu);
  AddRow(ratios, "host id",
         "%02x %02x %02x %02x %02x %02x %02x %02x-%02x %02x %02x %02x %02x %02x %02x %02x", 0x52,
         0x9a, 0x03, 0xff, 0x10, 0x77, 0x00, 0xc4, 0xde, 0xad, 0x0b, 0x0e, 0x60, 0x0d, 0xf0, 0x0f);
  AddRow(ratios, "contention", "HOT LOCK (%s); contention ratio %f\n", "fileSimpleRandomLock",
         0.173205);
}

void AddDoubles(Ratios *ratios) {
  const struct {
    const char *format;
    double value;
  } rows[] = {{"%e", 0.173205},    {"%e", 1e300 / 7}, {"%g", 0.173205},  {"%g", 100},
              {"%g", 1234565},     {"%.17g", 0.1},    {"%.17g", 2e-200}, {"%f", 123456789.125},
              {"%f", 1e20},        {"%f", 1e300},     {"%.20f", 0.1},    {"%.20f", M_PI},
              {"%.20f", 1e10 / 3}, {"%.30e", M_PI}};
  for (const auto &row : rows) {
    char name[32];
    snprintf(name, sizeof name, "%s of %g", row.format, row.value);
    AddHostRow(ratios, name, {{"host", 0.9}}, row.format, row.value);
  }
}

}  // namespace

int main(int argc, char **argv) {
  ProductRows ratios;
  AddRows(&ratios);
  AddDoubles(&ratios);
  const int status = ratios.Main(argc, argv);
  ratios.PrintMean({"host", 0.6});
  return status;
}
