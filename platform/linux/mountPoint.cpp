// mountPoint.cpp -- mount points on Linux, bind mounts included (kernel 5.8).

#include "platform/mountPoint.h"

#include <fcntl.h>
#include <sys/stat.h>

bool Platform_IsMountPoint(const char *path) {
  struct statx info;
  return statx(AT_FDCWD, path, AT_NO_AUTOMOUNT, STATX_TYPE, &info) == 0 &&
         (info.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}
