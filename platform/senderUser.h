// senderUser.h -- which user a message on a stream socket of the Unix domain came from.
//
// The kernel's answer, not the peer's.  It is the *real* user of the process at the other end, which
// for a set-user-ID program is the user who ran it.
#pragma once

#include <sys/types.h>

// Prepares the connected socket `sock`: messages that are sent from now on can be attributed.  False
// with errno set.
[[nodiscard]] bool Platform_PrepareForSender(int sock);

// Stores in `*user` who sent the message that waits to be received on `sock`; one sent before the
// preparation is nobody's (the host's overflow user).  The message stays where it is, and the socket
// is again as before the preparation.  False with errno set when no message waits, when the sender
// has gone, or when the host does not tell.
//
// Act on the answer only after a write to the peer has succeeded: macOS looks the process up by its
// number, and only a process that still has its end of the socket cannot have been replaced by
// another one with that number.
[[nodiscard]] bool Platform_SenderUser(int sock, uid_t *user);
