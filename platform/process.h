// process.h -- the path of the running program, and the descriptors to close before exec.
#pragma once

#include <sys/types.h>

#include <cstddef>

// Writes the absolute path of the running executable, with its NUL, into `buffer` of `size` bytes.
// False if the host does not know it or it does not fit.  On macOS this is the path given to exec; on
// Linux symbolic links are already resolved.
[[nodiscard]] bool Platform_ExecutablePath(char *buffer, size_t size);

// For a child that was just forked by the process `parent`: from now on the host kills the calling
// process by SIGKILL as soon as the thread that forked it ends; also after exec, unless that gives the
// process other rights.  Its own children are not affected.  False with ESRCH if the parent has ended
// already, and with ENOTSUP on macOS, which cannot do that.  Safe between fork and exec.
[[nodiscard]] bool Platform_EndWithParent(pid_t parent);

// Closes every descriptor above 2 except the `count` ones in `keep` (may be null when count is 0),
// which may be in any order, repeated, negative or unused.  Safe between fork and exec: allocates
// nothing and takes no lock.  Also closes descriptors above a soft limit that was lowered later, except
// on a Linux kernel that has neither close_range nor /proc.
void Platform_CloseDescriptorsExcept(const int *keep, size_t count);
