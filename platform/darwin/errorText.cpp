// errorText.cpp -- texts of errno values, on macOS: the POSIX form of strerror_r.

#include "platform/errorText.h"

#include <cstdio>
#include <cstring>

#include "lib/public/errnoKeeper.h"

const char *Platform_ErrorText(int error, std::span<char> buffer) {
  const ErrnoKeeper keeper;
  if (strerror_r(error, buffer.data(), buffer.size()) != 0) {
    (void)snprintf(buffer.data(), buffer.size(), "Unknown error %d", error);
  }
  return buffer.data();
}
