// smallFile.h -- reads a whole small file, opened without following symbolic links.
#pragma once

#include <cstddef>
#include <string_view>

#include "lib/public/fd.h"
#include "lib/public/heap.h"

struct SmallFileBytes {
  HeapArray<char> data;  // null if there are none
  size_t size = 0;

  std::string_view View() const { return {data.get(), size}; }
};

// Whether the errno value `error` of a failed call says something about the item: that it is missing, of
// another kind, or too large.  Otherwise it could not be examined.
bool SmallFileIsItemsFault(int error);

// Whether an open directory or file on the path is acceptable; false with errno set.
using SmallFileAccept = bool (*)(int fd);

// Accepts everything.
bool SmallFileAny(int fd);

// Accepts what belongs to root and only root may write to; otherwise errno is EPERM.
bool SmallFileOnlyRootMayWrite(int fd);

// Opens the regular file `path`, relative to the directory `start`, for reading.  `accept` is called
// for `start`, each directory on the path, and the file.  No component may be a symbolic link or empty.
// Empty with errno set; EINVAL or ENOTSUP for another kind of file.
[[nodiscard]] Fd SmallFileOpen(int start, const char *path, SmallFileAccept accept);

// Reads all bytes from the descriptor's offset on.  False with errno set; EFBIG if there are more than
// `limit`.
[[nodiscard]] bool SmallFileRead(int fd, size_t limit, SmallFileBytes *bytes);
