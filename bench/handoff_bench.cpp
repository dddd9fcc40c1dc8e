// handoff_bench.cpp -- the opener as a whole process, as installed: its hand-off to a running
// service against the least that could do it, and the start of the service under a small and a
// large descriptor limit.
//
//   handoff_bench [RUNS]
//
// Runs inside the sandbox, which it starts itself.  The programs compared are both set-user-ID
// root, run by the same user, in turns.

#include <fcntl.h>
#include <spawn.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "bench/report.h"
#include "bench/sandboxed.h"
#include "tests/support/product.h"

namespace {

constexpr rlim_t kSmallLimit = 1024;
constexpr rlim_t kLargeLimit = 1'000'000;
constexpr int kDescriptor = 7;
const std::string kMinimalPath = kBundleLibrary + "/minimalHandoff";

std::vector<char *> Arguments(const std::string &program) {
  static std::string number = std::to_string(kDescriptor);
  return {const_cast<char *>(program.c_str()), number.data(), nullptr};
}

// Records go nowhere.
const posix_spawn_file_actions_t *Quiet() {
  static posix_spawn_file_actions_t actions;
  static const bool made =
      posix_spawn_file_actions_init(&actions) == 0 &&
      posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0) == 0;
  if (!made) Die("posix_spawn_file_actions");
  return &actions;
}

// Microseconds from the start of `program` to its end.
double TimeOf(const std::string &program) {
  char *environment[] = {nullptr};
  pid_t pid;
  int status;
  const auto start = std::chrono::steady_clock::now();
  if (posix_spawn(&pid, program.c_str(), Quiet(), nullptr, Arguments(program).data(),
                  environment) != 0 ||
      waitpid(pid, &status, 0) != pid) {
    Die("posix_spawn");
  }
  const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
  if (status != 0) {
    fprintf(stderr, "%s: status %d\n", program.c_str(), status);
    exit(EXIT_FAILURE);
  }
  return time.count();
}

// KiB.  Of a child's rusage the part before exec cannot be told apart: so the child is stopped at
// its end, when its memory is still there to be asked for.
long PeakMemoryOf(const std::string &program) {
  const pid_t pid = fork();
  if (pid == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    BecomeUser(kUser);
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    execv(program.c_str(), Arguments(program).data());
    _exit(127);
  }
  int status;
  if (waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) Die("ptrace");
  ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL);
  do {
    ptrace(PTRACE_CONT, pid, nullptr, nullptr);
    if (waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) Die("ptrace");
  } while (status >> 8 != (SIGTRAP | PTRACE_EVENT_EXIT << 8));

  long peak = 0;
  std::ifstream lines("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(lines, line);) sscanf(line.c_str(), "VmHWM: %ld", &peak);
  ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
  waitpid(pid, &status, 0);
  if (status != 0 || peak == 0) Die("peak memory");
  return peak;
}

// Runs `measure` in a child process as the user, with `limit` descriptors if it is not 0; its
// result.
template <typename F>
auto AsUser(rlim_t limit, F measure) {
  decltype(measure()) result;
  const Pipe pipe;
  const pid_t pid = fork();
  if (pid == 0) {
    const rlimit both = {limit, limit};
    if (limit != 0 && setrlimit(RLIMIT_NOFILE, &both) != 0) Die("setrlimit");
    BecomeUser(kUser);
    result = measure();
    _exit(write(pipe.write.Get(), &result, sizeof result) == sizeof result ? 0 : 1);
  }
  int status;
  waitpid(pid, &status, 0);
  if (status != 0 || read(pipe.read.Get(), &result, sizeof result) != sizeof result) {
    Die("measuring");
  }
  return result;
}

void CompareHandOffs(int runs) {
  struct Medians {
    double opener, minimal;
  };
  const auto medians = AsUser(0, [runs] {
    std::vector<double> opener, minimal;
    for (int i = 0; i < runs; i++) {
      opener.push_back(TimeOf(kOpenerPath));
      minimal.push_back(TimeOf(kMinimalPath));
    }
    return Medians{Median(&opener), Median(&minimal)};
  });
  ReportRatio("hand-off, warm", "us", medians.opener, {"minimal client", 1.1}, medians.minimal);
  const auto peak = static_cast<double>(PeakMemoryOf(kOpenerPath));
  ReportRatio("peak memory", "KiB", peak, {"minimal client", 1.1},
              static_cast<double>(PeakMemoryOf(kMinimalPath)));
  ReportRatio("peak memory", "KiB", peak, {"4 MB", 1}, 4e6 / 1024);
}

double StartTime(rlim_t limit) {
  StopServices();
  return AsUser(limit, [] { return TimeOf(kOpenerPath); });
}

// The largest limit up to kLargeLimit that can be had; not every root may raise the hard one.
rlim_t LargestLimit() {
  rlimit now;
  if (getrlimit(RLIMIT_NOFILE, &now) != 0) Die("getrlimit");
  const rlimit wanted = {kLargeLimit, std::max(now.rlim_max, kLargeLimit)};
  if (setrlimit(RLIMIT_NOFILE, &wanted) == 0) return kLargeLimit;
  return std::min(now.rlim_max, kLargeLimit);
}

void CompareStarts(int runs) {
  const rlim_t large = LargestLimit();
  std::vector<double> withSmall, withLarge;
  for (int i = 0; i < runs; i++) {
    withSmall.push_back(StartTime(kSmallLimit));
    withLarge.push_back(StartTime(large));
  }
  ReportRatio("start, many descriptors", "us", Median(&withLarge),
              {"limit of " + std::to_string(kSmallLimit), 1.1}, Median(&withSmall));
  printf("  (many: a limit of %lu", static_cast<unsigned long>(large));
  if (large != kLargeLimit) {
    printf("; the host allows no limit of %lu", static_cast<unsigned long>(kLargeLimit));
  }
  printf(")\n");
}

}  // namespace

int main(int argc, char *argv[]) {
  EnterSandbox(argv, LUMEN_SUPPORT);
  const int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 2000;
  InstallBundle();
  Shell(R"(install -m 4755 "$LUMEN_BUILD/bench/peers/minimalHandoff" .)");

  const int null = open("/dev/null", O_RDWR);
  if (dup2(null, kDescriptor) < 0) Die("/dev/null");
  CompareStarts(std::max(1, runs / 10));
  CompareHandOffs(runs);
  StopServices();
  return 0;
}
