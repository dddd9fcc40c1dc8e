// processStart.h -- when a process started, to tell it from a later one with the same number.
#pragma once

#include <sys/types.h>

#include <cstdint>

// Stores when the process `pid` (a zombie is one, too) started, in microseconds; 0 when the host
// does not tell.  All processes of this machine are told the same value while it is up, whatever
// is done to its clock; two processes never have the same number and the same value, also across
// a restart of the machine.  False with ESRCH when there is no such process.  Any thread.
//
// On macOS the value counts from 1970.  On Linux it counts from a moment that differs from one
// start of the machine to the next: the wall time that the host derives moves with the clock.
[[nodiscard]] bool Platform_ProcessStartTime(pid_t pid, uint64_t *microseconds);
