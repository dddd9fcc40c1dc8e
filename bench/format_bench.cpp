// format_bench.cpp -- Str_Snprintf against the host's snprintf and {fmt}'s printf.
//
// The rows are formats of the system's own messages, with arguments as they come.  {fmt} runs its
// printf into a memory buffer on the stack, its fastest way.
//
//   format_bench [options of Google Benchmark]

#include <fmt/printf.h>

#include <cstdio>
#include <string>

#include "bench/ratios.h"
#include "lib/public/str.h"

namespace {

constexpr size_t kBufferSize = 1024;

// A pointer that the compiler knows nothing about, so that no engine gets a head start.
const char *Hidden(const char *p) {
  asm volatile("" : "+r"(p));
  return p;
}

// One row: the same format and arguments for each engine.
template <typename... Args>
void AddRow(Ratios *ratios, const std::string &row, const char *format, Args... args) {
  static char to[kBufferSize];
  ratios->AddRow(row, {{"host", 0.8}, {"fmt", 1}});
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  Ratios::Add(row, "lumen", [=] { return Str_Snprintf(to, kBufferSize, Hidden(format), args...); });
  Ratios::Add(row, "host", [=] { return snprintf(to, kBufferSize, Hidden(format), args...); });
#pragma GCC diagnostic pop
  Ratios::Add(row, "fmt", [=] {
    fmt::basic_memory_buffer<char, kBufferSize> buffer;
    fmt::detail::vprintf(static_cast<fmt::detail::buffer<char> &>(buffer),
                         fmt::string_view(Hidden(format)),
                         fmt::printf_args(fmt::make_printf_args(args...)));
    benchmark::DoNotOptimize(buffer.data());
    return buffer.size();
  });
}

void AddRows(Ratios *ratios) {
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

}  // namespace

int main(int argc, char **argv) {
  Ratios ratios;
  AddRows(&ratios);
  return ratios.Main(argc, argv);
}
