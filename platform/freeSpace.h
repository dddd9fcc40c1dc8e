// freeSpace.h -- the room that a file system has.
#pragma once

#include <cstdint>

// The bytes that an ordinary user may still fill in the file system of `path` (not null).  False with
// errno set.
[[nodiscard]] bool Platform_FreeSpace(const char *path, uint64_t *bytes);
