// log.cpp -- the diagnostic log: one descriptor, three writes a record, nothing else.
//
// The process is set-user-ID root, so the log opens no file by itself: it starts on standard
// output, which belongs to whoever started the program.  It neither allocates nor locks, so that it
// also works where exhausted memory or a broken lock is what there is to report.
//
// Held:   standard output may be a pipe that nobody empties, a terminal that is stopped, or a file of a
//         file system that its user serves.  A process that others wait for must not wait for any of
//         these, so it can have its records kept until they wait no longer.  They are in shared
//         memory, because children of fork(2) have records, too, and end or exec before that.

#include "lib/public/log.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <string_view>

#include "lib/public/str.h"

namespace {

constexpr size_t kBufferSize = 1024;

// Processes that share it take room in it, each its own.
struct HeldRecords {
  static constexpr size_t kRoom = size_t{32} << 10;

  std::atomic<size_t> taken = 0;
  std::atomic<bool> lost = false;  // something did not fit
  char bytes[kRoom] = {};

  void Add(std::string_view piece) {
    size_t at = taken.load(std::memory_order_relaxed);
    do {
      if (piece.size() > kRoom - at) {
        lost.store(true, std::memory_order_relaxed);
        return;
      }
    } while (!taken.compare_exchange_weak(at, at + piece.size(), std::memory_order_relaxed));
    piece.copy(bytes + at, piece.size());
  }
};

struct LogState {
  std::atomic<int> fd = STDOUT_FILENO;        // -1: logging is off
  std::atomic<HeldRecords *> held = nullptr;  // null: records are written at once
  HeldRecords *shared = nullptr;              // kept for the next time
};

constinit LogState state;
constinit HeldRecords unshared;  // where there is no memory to share

// There is nowhere to report that the log cannot be written.
void WriteIgnoringResult(int fd, const char *bytes, size_t length) {
  [[maybe_unused]] const ssize_t written = write(fd, bytes, length);
}

void Put(int fd, std::string_view piece) {
  HeldRecords *const held = state.held.load(std::memory_order_relaxed);
  if (held != nullptr) {
    held->Add(piece);
  } else {
    WriteIgnoringResult(fd, piece.data(), piece.size());
  }
}

// Local time, cut to milliseconds: a record never bears a time that has not come yet.
int FormatStamp(char *buffer, size_t size) {
  timeval now;
  gettimeofday(&now, nullptr);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  return Str_Snprintf(buffer, size, "%04d-%02d-%02dT%02d:%02d:%02d.%03d| ", local.tm_year + 1900,
                      local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                      static_cast<int>(now.tv_usec / 1000));
}

__attribute__((format(printf, 2, 0))) void WriteRecord(std::string_view tag, const char *format,
                                                       va_list args) {
  const int fd = state.fd.load(std::memory_order_relaxed);
  if (fd == -1) return;
  char buffer[kBufferSize];

  const int stampLength = FormatStamp(buffer, sizeof buffer);
  if (stampLength >= 0) Put(fd, {buffer, static_cast<size_t>(stampLength)});
  Put(fd, tag);

  // A body that does not fit is dropped, not cut: half a message can mislead, a bare tag cannot.
  const int bodyLength = Str_Vsnprintf(buffer, sizeof buffer, format, args);
  if (bodyLength >= 0) Put(fd, {buffer, static_cast<size_t>(bodyLength)});
}

// The process is about to end, and others may wait for that: what its last words wait for may not take
// longer than this.
void EndSoon() {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigaction(SIGALRM, &action, nullptr);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGALRM);
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
  const itimerval soon = {{0, 0}, {1, 0}};
  setitimer(ITIMER_REAL, &soon, nullptr);
}

}  // namespace

void Log(const char *format, ...) {
  va_list args;
  va_start(args, format);
  WriteRecord("", format, args);
  va_end(args);
}

void Warning(const char *format, ...) {
  va_list args;
  va_start(args, format);
  WriteRecord("Warning: ", format, args);
  va_end(args);
}

void Panic(const char *format, ...) {
  va_list args;
  va_start(args, format);
  WriteRecord("Panic: ", format, args);
  va_end(args);
  if (state.held.load(std::memory_order_relaxed) != nullptr) EndSoon();
  LogRelease();
  exit(EXIT_FAILURE);
}

void LogHold() {
  if (state.held.load(std::memory_order_relaxed) != nullptr) return;
  if (state.shared == nullptr) {
    void *const memory =
        mmap(nullptr, sizeof(HeldRecords), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANON, -1, 0);
    state.shared = memory == MAP_FAILED ? &unshared : static_cast<HeldRecords *>(memory);
  }
  state.held.store(state.shared, std::memory_order_relaxed);
}

void LogRelease() {
  HeldRecords *const held = state.held.exchange(nullptr, std::memory_order_relaxed);
  if (held == nullptr) return;
  const size_t size = held->taken.exchange(0, std::memory_order_relaxed);
  const bool lost = held->lost.exchange(false, std::memory_order_relaxed);
  const int fd = state.fd.load(std::memory_order_relaxed);
  if (fd == -1) return;
  if (size > 0) WriteIgnoringResult(fd, held->bytes, size);
  if (lost) Warning("%s: Some records did not fit.\n", "LogRelease");
}

// Not close-on-exec: the log stands in for standard output, which programs inherit, too.
int LogOpen(const char *path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  state.fd.store(fd, std::memory_order_relaxed);
  return fd;
}
