// freeSpace.h -- the free space of a file system.
#pragma once

#include <cstdint>

// Stores how many bytes an ordinary user may still fill in the file system of `path` (not null).  False
// with errno set.
[[nodiscard]] bool Platform_FreeSpace(const char *path, uint64_t *bytes);
