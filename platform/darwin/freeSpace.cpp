// freeSpace.cpp -- free space on macOS: statfs(2), whose counts have 64 bits; those of statvfs(3) have
// 32 and overflow at 16 TiB.

#include "platform/freeSpace.h"

#include <sys/mount.h>
#include <sys/param.h>

bool Platform_FreeSpace(const char *path, uint64_t *bytes) {
  struct statfs status;
  if (statfs(path, &status) != 0) return false;
  *bytes = status.f_bavail * uint64_t{status.f_bsize};
  return true;
}
