// signals.h -- what signals do to the service.
#pragma once

// Installs the actions: SIGTERM and SIGINT make the returned descriptor readable; SIGALRM
// interrupts a system call and does nothing else; SIGPIPE is ignored, so that a peer which has gone
// is an error of the write.  Returns -1 with errno set when that fails.  The caller owns the
// descriptor; called once.
[[nodiscard]] int Signals_Install();
