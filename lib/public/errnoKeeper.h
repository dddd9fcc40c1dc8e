// errnoKeeper.h -- restores errno when the scope ends, so that clean-up does not hide the cause.
#pragma once

#include <cerrno>

class ErrnoKeeper {
  int saved_;

 public:
  ErrnoKeeper() noexcept : saved_(errno) {}
  explicit ErrnoKeeper(int value) noexcept : saved_(value) {}
  ErrnoKeeper(const ErrnoKeeper &) = delete;
  ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;
  ~ErrnoKeeper() { errno = saved_; }

  // What errno will be; also the cause, for messages.
  int Get() const noexcept { return saved_; }
  void Set(int value) noexcept { saved_ = value; }
};
