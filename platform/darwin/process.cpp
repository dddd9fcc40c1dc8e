// process.cpp -- the running program and its descriptors, on macOS.

#include "platform/process.h"

#include <mach-o/dyld.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cstdint>

namespace {

bool IsKept(const int *keep, size_t count, int fd) {
  for (size_t i = 0; i < count; i++) {
    if (keep[i] == fd) return true;
  }
  return false;
}

// One past the highest descriptor the process can have.  sysconf answers -1 for an unlimited soft
// limit; the kernel's own limit per process holds then.
int DescriptorLimit() {
  const long limit = sysconf(_SC_OPEN_MAX);
  if (limit >= 0 && limit <= INT32_MAX) return static_cast<int>(limit);
  int perProcess = 0;
  size_t size = sizeof perProcess;
  if (sysctlbyname("kern.maxfilesperproc", &perProcess, &size, nullptr, 0) == 0) return perProcess;
  return getdtablesize();
}

}  // namespace

bool Platform_ExecutablePath(char *buffer, size_t size) {
  auto room = static_cast<uint32_t>(size);
  return _NSGetExecutablePath(buffer, &room) == 0;
}

void Platform_CloseDescriptorsExcept(const int *keep, size_t count) {
  for (int fd = DescriptorLimit() - 1; fd > 2; fd--) {
    if (!IsKept(keep, count, fd)) close(fd);
  }
}
