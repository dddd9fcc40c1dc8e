// signals.h -- how the service handles signals.
#pragma once

// Installs the handlers: SIGTERM and SIGINT make the returned descriptor readable; SIGALRM only
// interrupts a system call; SIGPIPE is ignored, so that writing to a peer that has closed is an error.
// Returns -1 with errno set on failure.  The caller owns the descriptor.  Call it once.
[[nodiscard]] int Signals_Install();
