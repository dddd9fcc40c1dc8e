// connect.h -- connecting to a Unix-domain socket that may or may not have a listener.
//
// A header of its own, so that a test can link the other host's behaviour instead.
#pragma once

#include <sys/un.h>

// connect(2) with the whole of `address`.  0, or -1 with errno set.  After ECONNREFUSED or ENOENT the
// same socket may be connected, or bound, again.
[[nodiscard]] int Platform_Connect(int sock, const sockaddr_un &address);

// Whether ECONNREFUSED proves that nobody listens.  Linux waits while the listener's queue is full;
// macOS refuses at once.
[[nodiscard]] bool Platform_RefusalIsProof();
