// files.cpp -- opening with an exclusive lock, on macOS: one call does both.

#include "platform/files.h"

#include <fcntl.h>

int Platform_OpenLocked(const char *path, int flags, mode_t mode) {
  return open(path, flags | O_EXLOCK | O_CLOEXEC, mode);
}
