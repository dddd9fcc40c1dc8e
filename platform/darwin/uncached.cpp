// uncached.cpp -- open files that bypass the cache, on macOS: two fcntl(2) settings.

#include "platform/uncached.h"

#include <fcntl.h>

int Platform_UncachedOpenFlags(bool /*synchronous*/) {
  return 0;
}

int Platform_SetUncached(int fd, bool synchronous) {
  if (fcntl(fd, F_NOCACHE, 1) == -1) return -1;
  // Without F_NODIRECT, uncached writes are direct, and therefore synchronous.
  return synchronous ? 0 : fcntl(fd, F_NODIRECT, 1);
}
