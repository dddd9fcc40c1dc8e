// peerProcess.h -- which process is at the other end of a stream socket of the Unix domain.
#pragma once

#include <sys/types.h>

// Stores in `*process` the id of the process that listened at the connected socket `sock`, or connected
// to it.  That process may have gone since, and its id may be another's.  False with errno set.
[[nodiscard]] bool Platform_PeerProcess(int sock, pid_t *process);
