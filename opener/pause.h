// pause.h -- waiting for a time, whatever signals come.
#pragma once

#include <cerrno>
#include <ctime>

// Not shortened by a signal: whoever runs the opener could otherwise make it impatient.
inline void PauseMs(long ms) {
  timespec left = {ms / 1000, ms % 1000 * 1'000'000};
  while (ms > 0 && nanosleep(&left, &left) != 0 && errno == EINTR) continue;
}
