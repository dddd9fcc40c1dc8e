// senderUser.h -- which user sent a message on a Unix-domain stream socket.
//
// The answer is the kernel's, not the peer's: the *real* user of the process at the other end, which
// for a set-user-ID program is the user who ran it.
#pragma once

#include <sys/types.h>

// Prepares the connected socket `sock`, so that messages sent from now on can be attributed.  False with
// errno set.
[[nodiscard]] bool Platform_PrepareForSender(int sock);

// Stores in `*user` the sender of the next message on `sock`; for one sent before the preparation, the
// host's overflow user.  The message is not consumed, and the socket is reset to its state before the
// preparation.  False with errno set if no message is waiting, if the sender has closed, or if the
// host does not know.
//
// Act on the answer only after a write to the peer has succeeded: macOS looks the process up by its pid,
// and only while the process keeps its end of the socket open can that pid not have been reused.
[[nodiscard]] bool Platform_SenderUser(int sock, uid_t *user);
