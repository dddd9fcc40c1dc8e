// peer.h -- the other end of an opener or of a service, played by the test: an independent implementation
// of the protocol.
#pragma once

#include <string>
#include <string_view>

#include "lib/public/fd.h"

// A socket that listens at `path`, replacing it, mode 0600; the next connection to it; a socket connected
// to `path`.
Fd ListenAt(const std::string &path);
Fd Accept(const Fd &listener);
Fd ConnectTo(const std::string &path);

// Sends one byte: the greeting, or the answer.
void Say(const Fd &connection, char byte);

// One byte, '\0' at the end of file, and the descriptor that came with it.
struct Received {
  char byte = '\0';
  Fd fd;
};
Received Receive(const Fd &connection);

// Sends one message: `payload` with `count` copies of `fd`.
void SendFds(const Fd &connection, std::string_view payload, int fd, size_t count);
