// dirStream.h -- owns a stream of directory entries (POSIX opendir).
#pragma once

#include <dirent.h>

#include <memory>

#include "lib/public/errnoKeeper.h"
#include "lib/public/fd.h"

struct DirStreamCloser {
  void operator()(DIR *stream) const noexcept {
    const ErrnoKeeper keeper;
    closedir(stream);
  }
};
using DirStream = std::unique_ptr<DIR, DirStreamCloser>;

// A stream over the directory open as `dir`, which it takes over.  Null with errno set on failure; if
// `dir` is empty, errno is still that of the call that should have opened it.
[[nodiscard]] inline DirStream DirStreamOf(Fd dir) {
  DirStream stream(dir ? fdopendir(dir.Get()) : nullptr);
  if (stream != nullptr) static_cast<void>(dir.Release());
  return stream;
}
