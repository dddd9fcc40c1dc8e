// mountPoint.cpp -- mounts on Linux, bind mounts included (kernel 5.8).

#include "platform/mountPoint.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

bool Platform_IsMountPoint(const char *path) {
  struct statx info;
  return statx(AT_FDCWD, path, AT_NO_AUTOMOUNT, STATX_TYPE, &info) == 0 &&
         (info.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

bool Platform_IsMountedNoexec(const char *path) {
  struct statvfs info;
  return statvfs(path, &info) == 0 && (info.f_flag & ST_NOEXEC) != 0;
}
