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

// A stream over the directory open as `dir`, which it owns from then on.  Null with errno set when that
// fails; with the errno of the caller's own call when `dir` is empty.
[[nodiscard]] inline DirStream DirStreamOf(Fd dir) {
  DirStream stream(dir ? fdopendir(dir.Get()) : nullptr);
  if (stream != nullptr) static_cast<void>(dir.Release());
  return stream;
}
