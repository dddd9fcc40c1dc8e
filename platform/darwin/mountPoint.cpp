// mountPoint.cpp -- mounts on macOS.

#include "platform/mountPoint.h"

#include <sys/mount.h>

#include <cstring>

bool Platform_IsMountPoint(const char *path) {
  struct statfs info;
  return statfs(path, &info) == 0 && strcmp(info.f_mntonname, path) == 0;
}

bool Platform_IsMountedNoexec(const char *path) {
  struct statfs info;
  return statfs(path, &info) == 0 && (info.f_flags & MNT_NOEXEC) != 0;
}
