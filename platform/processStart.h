// processStart.h -- when a process started, to distinguish it from a later one with the same pid.
#pragma once

#include <sys/types.h>

#include <cstdint>

// Stores the start time of the process `pid` (which may be a zombie) in microseconds; 0 if the host does
// not reveal it.  Until the machine restarts, every process of this machine gets the same value,
// whatever happens to the clock; no two processes have both the same pid and the same value, not even
// across a restart.  False with ESRCH if there is no such process.  Any thread.
//
// On macOS the value is the time since 1970.  On Linux its origin differs from one boot to the next,
// since a wall time derived from the kernel's ticks would move whenever the clock is set.
[[nodiscard]] bool Platform_ProcessStartTime(pid_t pid, uint64_t *microseconds);
