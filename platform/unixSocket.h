// unixSocket.h -- stream sockets of the Unix domain.
//
// The contract is macOS's: a peer that has gone is an end of file to the reader and EPIPE to the
// writer, never a signal and never a reset.
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

// sendmsg(2) with flags 0 on a socket that Platform_SetNoSigpipe has seen.
[[nodiscard]] ssize_t Platform_SendMessage(int sock, const msghdr *message);

// read(2); on a socket, 0 when the peer has gone, whatever it left unread.
[[nodiscard]] ssize_t Platform_Read(int fd, void *buffer, size_t size);

// recvmsg(2) with flags 0; 0 when the peer has gone, whatever it left unread.
[[nodiscard]] ssize_t Platform_ReceiveMessage(int sock, msghdr *message);
