// process.cpp -- the running program and its descriptors, on Linux.
// Tests: tests/unit/daemonize_test.cpp, tests/unit/hostServices_test.cpp

#include "platform/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "lib/public/fd.h"

namespace {

bool IsKept(const int *keep, size_t count, int fd) {
  for (size_t i = 0; i < count; i++) {
    if (keep[i] == fd) return true;
  }
  return false;
}

// The lowest kept descriptor at or above `from`, or -1.  The list is short: one scan for each entry is
// cheaper than sorting a copy, and needs no memory.
int NextKept(const int *keep, size_t count, unsigned from) {
  int next = -1;
  for (size_t i = 0; i < count; i++) {
    if (keep[i] < 0 || static_cast<unsigned>(keep[i]) < from) continue;
    if (next < 0 || keep[i] < next) next = keep[i];
  }
  return next;
}

// Closes the ranges between the kept descriptors, in a time that does not depend on the descriptor
// limit.  False if close_range is missing: kernels before 5.9, and some sandboxes.
bool CloseGaps(const int *keep, size_t count) {
  unsigned first = STDERR_FILENO + 1;
  for (int kept; (kept = NextKept(keep, count, first)) >= 0;) {
    const auto last = static_cast<unsigned>(kept);
    if (last > first && close_range(first, last - 1, 0) != 0) return false;
    first = last + 1;
  }
  return close_range(first, ~0U, 0) == 0;
}

// The descriptor that an entry of /proc/self/fd names; -1 for "." and "..".
int NumberOf(const char *name) {
  int number = 0;
  for (; *name != '\0'; name++) {
    if (*name < '0' || *name > '9') return -1;
    number = number * 10 + (*name - '0');
  }
  return number;
}

// Closes the descriptors that /proc lists, including those above a limit that was lowered later.  False
// if there is no list, or no free descriptor to read it.  The kernel lists them in ascending order, so
// closing some does not make it skip others.
bool CloseListed(const int *keep, size_t count) {
  const Fd list(open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!list) return false;
  bool foundItself = false;  // proves that this is a real /proc
  alignas(dirent64) char buffer[1024];
  ssize_t size;
  while ((size = getdents64(list.Get(), buffer, sizeof buffer)) > 0) {
    for (ssize_t at = 0; at < size;) {
      const auto *const entry = reinterpret_cast<const dirent64 *>(buffer + at);
      at += entry->d_reclen;
      const int fd = NumberOf(entry->d_name);
      if (fd == list.Get()) {
        foundItself = true;
      } else if (fd > STDERR_FILENO && !IsKept(keep, count, fd)) {
        close(fd);
      }
    }
  }
  return size == 0 && foundItself;
}

void CloseBelowLimit(const int *keep, size_t count) {
  const long limit = sysconf(_SC_OPEN_MAX);
  for (int fd = STDERR_FILENO + 1; fd < limit; fd++) {
    if (!IsKept(keep, count, fd)) close(fd);
  }
}

}  // namespace

bool Platform_ExecutablePath(char *buffer, size_t size) {
  const ssize_t length = readlink("/proc/self/exe", buffer, size);
  if (length <= 0 || static_cast<size_t>(length) >= size) return false;
  buffer[length] = '\0';
  return true;
}

bool Platform_EndWithParent(pid_t parent) {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return false;
  // If the parent had ended before, no signal will come.
  if (getppid() == parent) return true;
  errno = ESRCH;
  return false;
}

void Platform_CloseDescriptorsExcept(const int *keep, size_t count) {
  if (CloseGaps(keep, count) || CloseListed(keep, count)) return;
  CloseBelowLimit(keep, count);
  // If the list could not be read for want of a descriptor, now it can.
  (void)CloseListed(keep, count);
}
