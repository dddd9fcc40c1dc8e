// processStart.cpp -- start times of processes on Linux, from /proc.
//
// Idea:   /proc/PID/stat has the start in clock ticks since boot.  Adding the wall time of the boot
//         ("btime") would not give a stable value: it moves whenever the clock is set, and a live
//         process would look like another one.  So a hash of the boot id is added, which stays the
//         same until the next boot.
// Tests:  tests/unit/fileLock_test.cpp

#include "platform/processStart.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/public/fd.h"

namespace {

constexpr char kBootId[] = "/proc/sys/kernel/random/boot_id";
constexpr int kStartField = 22;  // of stat; field 1 is the pid, field 2 the name in parentheses

// Reads a small file of /proc into `buffer` and terminates it.  One read returns all of it.
bool ReadSmall(const char *path, char *buffer, size_t size) {
  const Fd fd(open(path, O_RDONLY | O_CLOEXEC));
  const ssize_t length = fd ? read(fd.Get(), buffer, size - 1) : -1;
  if (length <= 0) return false;
  buffer[length] = '\0';
  return true;
}

// FNV-1a; never 0.
uint64_t HashOf(const char *text) {
  uint64_t hash = 0xCBF29CE484222325;
  for (; *text != '\0'; text++) hash = (hash ^ static_cast<unsigned char>(*text)) * 0x100000001B3;
  return hash | 1;
}

// Ticks since boot.  The name may contain blanks and parentheses, so fields are counted from the last
// parenthesis.
bool StartTicks(pid_t pid, uint64_t *ticks) {
  char path[32];
  char stat[1024];
  snprintf(path, sizeof path, "/proc/%d/stat", pid);
  if (!ReadSmall(path, stat, sizeof stat)) return false;
  const char *field = strrchr(stat, ')');
  for (int n = 2; n < kStartField && field != nullptr; n++) field = strchr(field + 1, ' ');
  if (field == nullptr) return false;
  *ticks = strtoull(field, nullptr, 10);
  return true;
}

}  // namespace

bool Platform_ProcessStartTime(pid_t pid, uint64_t *microseconds) {
  *microseconds = 0;
  uint64_t ticks;
  char bootId[64];
  if (pid > 0 && StartTicks(pid, &ticks)) {
    // Without the boot id, 0: ticks alone would differ from the value that other processes get.
    if (ReadSmall(kBootId, bootId, sizeof bootId)) {
      const auto perSecond = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
      *microseconds = HashOf(bootId) + ticks * (1000000 / perSecond);
    }
    return true;
  }
  // /proc may be missing, or hide the processes of other users.
  if (pid > 0 && (kill(pid, 0) == 0 || errno == EPERM)) return true;
  errno = ESRCH;
  return false;
}
