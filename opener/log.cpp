// log.cpp -- the diagnostic log: one descriptor, three writes a record, nothing else.
//
// The process is set-user-ID root, so the log opens no file by itself: it starts on standard output,
// which the caller chose.  It neither allocates nor locks, so that it can report exhausted memory or a
// broken lock.
//
// Held:   a write to standard output can block: on a pipe that nobody empties, a stopped terminal, a
//         file of a file system that the user serves.  While other processes wait for this one, it must
//         not block, so its records can be held back until LogRelease.  They are kept in memory
//         shared with the children of fork(2), which may log and then exit or exec in the meantime.
// Tests:  tests/unit/opener_test.cpp, tests/system/caller_test.cpp

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

// Shared between processes; each piece is written to a range that its writer has reserved.
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
  HeldRecords *shared = nullptr;              // mapped once, then reused
};

constinit LogState state;
constinit HeldRecords unshared;  // if mapping shared memory fails

// A log that cannot be written cannot be reported anywhere.
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

// Local time in milliseconds: truncated, not rounded, so a stamp is never in the future.
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

  // A body that does not fit is dropped, not truncated: half a message can mislead, a bare tag cannot.
  const int bodyLength = Str_Vsnprintf(buffer, sizeof buffer, format, args);
  if (bodyLength >= 0) Put(fd, {buffer, static_cast<size_t>(bodyLength)});
}

// Others may be waiting for this process to end, and its last write may block: SIGALRM ends it after a
// second in any case.
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

// Not close-on-exec: the file replaces standard output, which is inherited across exec as well.
int LogOpen(const char *path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  state.fd.store(fd, std::memory_order_relaxed);
  return fd;
}
