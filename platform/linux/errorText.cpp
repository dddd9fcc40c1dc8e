// errorText.cpp -- texts of errno values, on Linux: the GNU form of strerror_r.

#include "platform/errorText.h"

#include <cstring>

#include "lib/public/errnoKeeper.h"

const char *Platform_ErrorText(int error, std::span<char> buffer) {
  const ErrnoKeeper keeper;
  return strerror_r(error, buffer.data(), buffer.size());
}
