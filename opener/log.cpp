// log.cpp -- the diagnostic log: one descriptor, three writes a record, nothing else.
//
// The process is set-user-ID root, so the log opens no file by itself: it starts on standard
// output, which belongs to whoever started the program.  It neither allocates nor locks, so that it
// also works where exhausted memory or a broken lock is what there is to report.

#include "log.h"

#include <fcntl.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <string_view>

#include "str.h"

namespace {

constexpr size_t kBufferSize = 1024;

struct LogState {
  std::atomic<int> fd = STDOUT_FILENO;  // -1: logging is off
};

constinit LogState state;

// There is nowhere to report that the log cannot be written.
void WriteIgnoringResult(int fd, const char *bytes, size_t length) {
  [[maybe_unused]] const ssize_t written = write(fd, bytes, length);
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
  if (stampLength >= 0) WriteIgnoringResult(fd, buffer, static_cast<size_t>(stampLength));
  WriteIgnoringResult(fd, tag.data(), tag.size());

  // A body that does not fit is dropped, not cut: half a message can mislead, a bare tag cannot.
  const int bodyLength = Str_Vsnprintf(buffer, sizeof buffer, format, args);
  if (bodyLength >= 0) WriteIgnoringResult(fd, buffer, static_cast<size_t>(bodyLength));
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
  exit(EXIT_FAILURE);
}

// Not close-on-exec: the log stands in for standard output, which programs inherit, too.
int LogOpen(const char *path) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  state.fd.store(fd, std::memory_order_relaxed);
  return fd;
}
