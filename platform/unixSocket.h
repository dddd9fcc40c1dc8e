// unixSocket.h -- Unix-domain stream sockets.
//
// The contract is that of macOS: if the peer has closed, readers see an end of file and writers get
// EPIPE, never a signal and never a reset.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>

// Clears `address` and sets its family and, where there is one, its length byte, for a path of
// `pathLength` bytes; the caller copies the path into sun_path.
void Platform_InitUnixAddress(sockaddr_un *address, size_t pathLength);

// From now on Platform_SendMessage on `sock` gives EPIPE instead of SIGPIPE.  False with errno set.
// On macOS it fails with EINVAL when the peer has already closed.
[[nodiscard]] bool Platform_SetNoSigpipe(int sock);

// sendmsg(2) with flags 0, for sockets that were passed to Platform_SetNoSigpipe.
[[nodiscard]] ssize_t Platform_SendMessage(int sock, const msghdr *message);

// read(2); on a socket, 0 if the peer has closed, even with data unread.
[[nodiscard]] ssize_t Platform_Read(int fd, void *buffer, size_t size);

// recvmsg(2) with flags 0; 0 if the peer has closed, even with data unread.
[[nodiscard]] ssize_t Platform_ReceiveMessage(int sock, msghdr *message);
