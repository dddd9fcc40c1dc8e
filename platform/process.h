// process.h -- what the host tells of the running program, and what a child does before exec.
#pragma once

#include <cstddef>

// Writes the absolute path of the running executable, with its NUL, into `buffer` of `size` bytes.
// False when the host does not tell it or it does not fit.  On macOS the path is the one given to
// exec; on Linux symbolic links are resolved already.
[[nodiscard]] bool Platform_ExecutablePath(char *buffer, size_t size);

// Closes every descriptor above 2 except the `count` ones in `keep` (may be null when count is 0),
// which may be in any order, repeated, negative or unused.  Safe between fork and exec: it allocates
// nothing and takes no lock.  Those above a soft limit that was lowered are closed too, unless a Linux
// kernel without close_range has no /proc either.
void Platform_CloseDescriptorsExcept(const int *keep, size_t count);
