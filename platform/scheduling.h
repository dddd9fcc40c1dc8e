// scheduling.h -- how the host treats a process in comparison with others.
#pragma once

// Gives the calling process, which is root, what one that the system starts has: priority,
// scheduling class, priority of its reads and writes, and where the host has them processors,
// memory nodes, precision of timers and the order in which processes are killed when memory runs
// out.  All of it is inherited, and an ordinary user may worsen it before starting a set-user-ID
// program.  As far as the host allows: what it refuses stays as it was, and nothing tells.
void Platform_ResetScheduling();
