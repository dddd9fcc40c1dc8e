// errorText.cpp -- texts of errno values, on macOS: the POSIX form of strerror_r.

#include "platform/errorText.h"

#include <cstring>

#include "errnoKeeper.h"

const char *Platform_ErrorText(int error, std::span<char> buffer) {
  const ErrnoKeeper keeper;
  // The result tells nothing more: for an unknown number or a small buffer there is a text all the
  // same.
  (void)strerror_r(error, buffer.data(), buffer.size());
  return buffer.data();
}
