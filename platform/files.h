// files.h -- opening files in ways the two hosts spell differently.
#pragma once

#include <sys/types.h>

// Opens `path` close-on-exec with `flags` and `mode` and waits until it holds an exclusive flock(2)
// on it.  Returns the descriptor, or -1 with errno set; EINTR when a signal came while it waited.
[[nodiscard]] int Platform_OpenLocked(const char *path, int flags, mode_t mode);
