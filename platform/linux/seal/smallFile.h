// smallFile.h -- reading a small file whole, found without following symbolic links.
#pragma once

#include <cstddef>
#include <string_view>

#include "lib/public/fd.h"
#include "lib/public/heap.h"

struct SmallFileBytes {
  HeapArray<char> data;  // null: there are none
  size_t size = 0;

  std::string_view View() const { return {data.get(), size}; }
};

// Whether errno value `error`, which a call on an item or on something in it has left, tells of the
// item itself: that it is not there, of another kind, too large.  Otherwise the host could not look.
bool SmallFileIsItemsFault(int error);

// Says of an open directory or file on the way whether it will do; false with errno set.
using SmallFileAccept = bool (*)(int fd);

// Everything will do.
bool SmallFileAny(int fd);

// Belongs to root, and only root may write.
bool SmallFileRoots(int fd);

// Opens the regular file `path`, relative to the directory `start`, for reading.  `accept` is asked
// about the start and whatever is opened on the way, the file included.  No component may be a
// symbolic link, and the path has no empty one.  Empty with errno set; EINVAL or
// ENOTSUP for another kind of file, EPERM from SmallFileRoots.
[[nodiscard]] Fd SmallFileOpen(int start, const char *path, SmallFileAccept accept);

// All bytes from the descriptor's offset on.  False with errno set; EFBIG when there are more than
// `limit`.
[[nodiscard]] bool SmallFileRead(int fd, size_t limit, SmallFileBytes *bytes);
