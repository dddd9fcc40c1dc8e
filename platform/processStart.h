// processStart.h -- when a process started, to distinguish it from a later one with the same pid; and
// which processes understand each other's pids and start times.
#pragma once

#include <sys/types.h>

#include <cstdint>

// Stores the start time of the process `pid` in microseconds; 0 if the host does not reveal it.  Until
// the machine restarts, every process of this machine gets the same value, whatever happens to the clock;
// no two processes have both the same pid and the same value, not even across a restart.  False with
// ESRCH if there is no such process; one whose threads have all ended is none, reaped or not.  Any thread.
//
// On macOS the value is the time since 1970.  On Linux its origin differs from one boot to the next,
// since a wall time derived from the kernel's ticks would move whenever the clock is set.
[[nodiscard]] bool Platform_ProcessStartTime(pid_t pid, uint64_t *microseconds);

// The namespaces that give pids and start times their meaning: two processes understand each other's only
// if both members are equal.  0 stands for the host's own namespace.  A process keeps its namespaces; its
// children may get others.
struct PlatformProcessWorld {
  uint32_t numbers = 0;
  uint32_t times = 0;

  bool operator==(const PlatformProcessWorld &) const = default;
};

// Those of this process; zeros on macOS.  Any thread.
[[nodiscard]] PlatformProcessWorld Platform_ProcessWorld();
