// processStart.cpp -- when a process started, on Linux: from /proc.
//
// Idea:   /proc/PID/stat has the start in clock ticks since the machine's.  Its sum with the start
//         of the machine in wall time ("btime") is no identity: that moves whenever the clock is
//         set, and a live process would look like another one.  The sum with a number made of the
//         machine's boot id stays, and is another one after a restart.
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
constexpr int kStartField = 22;  // of stat; 1 is the number, 2 the name in brackets

// Reads the small file into `buffer` and terminates it.  /proc gives such files in one piece.
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

// Ticks since the machine's start.  The name may hold blanks and brackets, so the fields are counted
// from the last bracket.
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
    // One without the other would differ from what a process that sees both is told.
    if (ReadSmall(kBootId, bootId, sizeof bootId)) {
      const auto perSecond = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
      *microseconds = HashOf(bootId) + ticks * (1000000 / perSecond);
    }
    return true;
  }
  // /proc may be missing, or hide other users' processes.
  if (pid > 0 && (kill(pid, 0) == 0 || errno == EPERM)) return true;
  errno = ESRCH;
  return false;
}
