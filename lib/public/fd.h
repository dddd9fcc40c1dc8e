// fd.h -- a descriptor with one owner.
//
// For the descriptors whose close cannot fail in a way anybody cares about: closing ignores errors
// and keeps errno.  A file that was written is closed by its own checked procedure instead.
#pragma once

#include <unistd.h>

#include <utility>

#include "lib/public/errnoKeeper.h"

class Fd {
  int fd_;

 public:
  explicit constexpr Fd(int fd = -1) noexcept : fd_(fd) {}
  Fd(Fd &&other) noexcept : fd_(other.Release()) {}
  Fd &operator=(Fd &&other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~Fd() { Reset(); }

  explicit operator bool() const noexcept { return fd_ >= 0; }
  int Get() const noexcept { return fd_; }
  [[nodiscard]] int Release() noexcept { return std::exchange(fd_, -1); }
  void Reset(int fd = -1) noexcept {
    if (fd_ >= 0) {
      const ErrnoKeeper keeper;
      // Never repeated on EINTR: the descriptor is gone either way.
      close(fd_);
    }
    fd_ = fd;
  }
};
