// delivery.h -- a delivered descriptor, which is read until its end of file.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "lib/public/fd.h"

class Delivery {
  static constexpr size_t kShown = 40;

  Fd fd_;
  uint64_t bytes_ = 0;
  uint64_t hash_ = 0;
  std::array<char, kShown + 1> beginning_ = {};  // for the log; "." for unprintable bytes

  void Take(const char *bytes, size_t count);

 public:
  // -1 if there is none.
  int Descriptor() const { return fd_.Get(); }

  void Begin(Fd fd);

  // Reads once.  Call it right after poll(2) has found Descriptor() readable; if that is no longer true, it
  // does not wait long.  At the end of file, or if reading fails, logs what was read and closes the
  // descriptor.
  void ReadSome(unsigned serial);
};
