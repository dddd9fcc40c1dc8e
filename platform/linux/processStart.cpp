// processStart.cpp -- start times of processes on Linux, from /proc.
//
// Idea:   /proc/PID/stat has the start in clock ticks since boot.  Adding the wall time of the boot
//         ("btime") would not give a stable value: it moves whenever the clock is set, and a live
//         process would look like another one.  So a hash of the boot id is added, which stays the
//         same until the next boot.
// Tests: tests/unit/fileLock_test.cpp, tests/system/lockMachines_test

#include "platform/processStart.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/public/fd.h"

namespace {

constexpr char kBootId[] = "/proc/sys/kernel/random/boot_id";
// Fields of stat; 1 is the pid, 2 the name in parentheses.
constexpr int kStateField = 3;
constexpr int kThreadsField = 20;
constexpr int kStartField = 22;

// Of the host's own namespaces: constants of the kernel (enum init_ns_ino of linux/nsfs.h).
constexpr ino_t kHostPids = 0xEFFFFFFC;
constexpr ino_t kHostTimes = 0xEFFFFFFA;
constexpr uint32_t kUnknown = 1;  // no namespace's

// Reads a small file of /proc into `buffer` and terminates it.  One read returns all of it.
bool ReadSmall(const char *path, char *buffer, size_t size) {
  const Fd fd(open(path, O_RDONLY | O_CLOEXEC));
  const ssize_t length = fd ? read(fd.Get(), buffer, size - 1) : -1;
  if (length <= 0) return false;
  buffer[length] = '\0';
  return true;
}

// Whether the numbers in /proc are those of our own namespace: it may have been mounted in another.
bool ProcIsOurs() {
  char self[16];
  const ssize_t length = readlink("/proc/self", self, sizeof self - 1);
  if (length <= 0) return false;
  self[length] = '\0';
  return strtol(self, nullptr, 10) == getpid();
}

// FNV-1a; never 0.
uint64_t HashOf(const char *text) {
  uint64_t hash = 0xCBF29CE484222325;
  for (; *text != '\0'; text++) hash = (hash ^ static_cast<unsigned char>(*text)) * 0x100000001B3;
  return hash | 1;
}

// The field `number`, at least 3, of the content of stat; null if there are fewer.  The name may contain
// blanks and parentheses, so fields are counted from the last parenthesis.
const char *FieldOf(const char *stat, int number) {
  const char *field = strrchr(stat, ')');
  for (int n = 2; n < number && field != nullptr; n++) field = strchr(field + 1, ' ');
  return field == nullptr ? nullptr : field + 1;
}

enum class Life { Unknown, Ended, Alive };

// Stores the start of a live process, in ticks since boot.  A process whose first thread has ended has
// the state of a zombie even while others go on.
Life ReadStat(pid_t pid, uint64_t *ticks) {
  if (!ProcIsOurs()) return Life::Unknown;
  char path[32];
  char stat[1024];
  snprintf(path, sizeof path, "/proc/%d/stat", pid);
  if (!ReadSmall(path, stat, sizeof stat)) return Life::Unknown;
  const char *const start = FieldOf(stat, kStartField);
  if (start == nullptr) return Life::Unknown;
  *ticks = strtoull(start, nullptr, 10);
  const char status = *FieldOf(stat, kStateField);
  const bool noThreads = strtoul(FieldOf(stat, kThreadsField), nullptr, 10) <= 1;
  return (status == 'Z' || status == 'X') && noThreads ? Life::Ended : Life::Alive;
}

uint32_t NamespaceOf(const char *path, ino_t hosts) {
  struct stat info;
  if (stat(path, &info) != 0) return kUnknown;
  return info.st_ino == hosts ? 0 : static_cast<uint32_t>(info.st_ino);
}

}  // namespace

bool Platform_ProcessStartTime(pid_t pid, uint64_t *microseconds) {
  *microseconds = 0;
  uint64_t ticks;
  char bootId[64];
  const Life life = pid > 0 ? ReadStat(pid, &ticks) : Life::Ended;
  if (life == Life::Alive) {
    // Without the boot id, 0: ticks alone would differ from the value that other processes get.
    if (ReadSmall(kBootId, bootId, sizeof bootId)) {
      const auto perSecond = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
      *microseconds = HashOf(bootId) + ticks * (1000000 / perSecond);
    }
    return true;
  }
  // /proc may be missing or somebody else's, or hide the processes of other users.
  if (life == Life::Unknown && (kill(pid, 0) == 0 || errno == EPERM)) return true;
  errno = ESRCH;
  return false;
}

PlatformProcessWorld Platform_ProcessWorld() {
  PlatformProcessWorld world;
  world.numbers = NamespaceOf("/proc/self/ns/pid", kHostPids);
  // Older kernels have no such namespaces.
  world.times = NamespaceOf("/proc/self/ns/time", kHostTimes);
  if (world.times == kUnknown && world.numbers != kUnknown) world.times = 0;
  return world;
}
