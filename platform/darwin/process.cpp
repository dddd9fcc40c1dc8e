// process.cpp -- the running program and its descriptors, on macOS.
// Tests: tests/unit/darwin_test.cpp

#include "platform/process.h"

#include <limits.h>
#include <mach-o/dyld.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <iterator>

namespace {

bool IsKept(const int *keep, size_t count, int fd) {
  for (size_t i = 0; i < count; i++) {
    if (keep[i] == fd) return true;
  }
  return false;
}

// One past the highest descriptor that can be open: the higher one of the soft limit and the kernel's
// limit per process.  The soft limit may be unlimited (sysconf returns -1), may have been lowered below
// a descriptor that is open, and for root may exceed the kernel's limit.
int DescriptorLimit() {
  int mib[] = {CTL_KERN, KERN_MAXFILESPERPROC};
  int perProcess = 0;
  size_t size = sizeof perProcess;
  if (sysctl(mib, std::size(mib), &perProcess, &size, nullptr, 0) != 0) perProcess = OPEN_MAX;
  const long soft = sysconf(_SC_OPEN_MAX);
  return soft > perProcess && soft <= INT32_MAX ? static_cast<int>(soft) : perProcess;
}

}  // namespace

bool Platform_ExecutablePath(char *buffer, size_t size) {
  auto room = static_cast<uint32_t>(size);
  return _NSGetExecutablePath(buffer, &room) == 0;
}

bool Platform_EndWithParent(pid_t) {
  errno = ENOTSUP;
  return false;
}

void Platform_CloseDescriptorsExcept(const int *keep, size_t count) {
  for (int fd = DescriptorLimit() - 1; fd > 2; fd--) {
    if (!IsKept(keep, count, fd)) close(fd);
  }
}
