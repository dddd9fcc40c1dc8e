// delivery.h -- a delivered descriptor, read up to its end of file.
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
  std::array<char, kShown + 1> beginning_ = {};  // for the log, unprintable bytes as "."

  void Take(const char *bytes, size_t count);

 public:
  // -1 when there is nothing to read.
  int Descriptor() const { return fd_.Get(); }

  void Begin(Fd fd);

  // One read, right after Descriptor() was found to be readable; it does not wait long if that is no
  // longer true.  At the end of file, or when reading fails, it logs what came and closes the
  // descriptor.
  void ReadSome(unsigned serial);
};
