// monotonicClock.h -- time for measuring spans: it never goes back and nobody sets it.
#pragma once

#include <time.h>

#include <cstdint>

// Milliseconds since some moment in the past, rounded down.  Cannot fail; safe after fork.
inline int64_t MonotonicClock_Ms() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}
