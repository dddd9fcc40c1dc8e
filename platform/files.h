// files.h -- opening and copying files in ways the two hosts spell differently.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "lib/public/fd.h"

// Opens the regular file or directory `name` for reading, close-on-exec; `name` (not null) is
// relative to the directory `dir`, which may be AT_FDCWD.  Nothing of another kind is opened: merely
// opening a device can have side effects, and a FIFO or a lease would block the caller.  On macOS,
// what is put there in the meantime is opened without blocking, and closed again.  Empty with errno
// set: ELOOP for a link at the end of the path, ENOTSUP for any other kind, EAGAIN for a file under a
// lease.
[[nodiscard]] Fd Platform_OpenRegularOrDirectory(int dir, const char *name);

// Opens `path` close-on-exec with `flags` and `mode` and waits until it holds an exclusive flock(2)
// on it.  O_TRUNC takes effect under the lock, with O_RDONLY, too, if the caller may write to the file;
// it is EISDIR for a directory.  Returns the descriptor, or -1 with errno set: EINTR if a signal
// interrupts the wait, EAGAIN instead of waiting with O_NONBLOCK.
[[nodiscard]] int Platform_OpenLocked(const char *path, int flags, mode_t mode);

// Copies up to `limit` bytes from the regular file open as `from` to the one open as `to`, from
// their positions, which move along, as far as the kernel does so without passing the bytes through
// this process.  Returns how many bytes that were: none where a host or file system cannot.  Why it
// stopped is left open; the caller copies the rest and meets the end or the failure.
[[nodiscard]] uint64_t Platform_CopyInKernel(int from, int to, uint64_t limit);

// Makes the regular file open as `to` a copy of the one open as `from`, which has at most `limit` bytes:
// data, mode, owner, times, extended attributes and access control list; the attributes that the
// target had are removed first, and what it has beyond the source's length is cut off.  Two
// different files, open for reading and for writing, both at offset 0; the offsets afterwards are
// unspecified.  False with errno set when the data or the attributes cannot be copied, EFBIG when the
// source is larger or grows beyond the limit, ENOTSUP for another kind of file; the content of the
// target is then undefined, but has little more than `limit` bytes.  A mode, owner or times
// that cannot be set are left as they are.  A lock against change and removal (file flags of macOS)
// does not come along.
[[nodiscard]] bool Platform_CopyFileWithMetadata(int from, int to, uint64_t limit);

// Removes the access control list of the open file, so that its mode alone governs access.
// False with errno set; a file or file system without a list is a success.
[[nodiscard]] bool Platform_RemoveAccessList(int fd);
