// scheduling.h -- the priorities that the host gives to a process.
#pragma once

// Resets the calling process, which must be root, to what the system gives its own daemons: priority,
// scheduling class and I/O priority, and on hosts that have them CPU affinity, memory policy, timer
// slack and out-of-memory score.  All of it is inherited, and an ordinary user may worsen it before
// starting a set-user-ID program.  What the host refuses to reset stays as it was, without an error.
void Platform_ResetScheduling();
