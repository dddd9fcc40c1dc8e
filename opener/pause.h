// pause.h -- sleeping that signals do not cut short.
#pragma once

#include <cerrno>
#include <ctime>

// A signal does not shorten the pause: the user could otherwise turn a retry loop into a busy one.
inline void PauseMs(long ms) {
  timespec left = {ms / 1000, ms % 1000 * 1'000'000};
  while (ms > 0 && nanosleep(&left, &left) != 0 && errno == EINTR) continue;
}
