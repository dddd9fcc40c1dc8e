// freeSpace.cpp -- free space of a file system, on Linux.

#include "platform/freeSpace.h"

#include <sys/statvfs.h>

bool Platform_FreeSpace(const char *path, uint64_t *bytes) {
  struct statvfs status;
  if (statvfs(path, &status) != 0) return false;
  *bytes = uint64_t{status.f_bavail} * status.f_frsize;
  return true;
}
