// serviceImplWire.h -- the bytes and the descriptor on one connection, for both ends of it.
//
// The protocol is docs/protocol.md: the daemon greets with one byte, the opener sends that byte back
// with the descriptor (SCM_RIGHTS), the daemon answers "1" or refuses.  Each failure is logged once,
// unless told otherwise.  The exchange byte makes these procedures the business of one thread.
#pragma once

// The byte that goes with a descriptor: what the opener was greeted with and sends back, and what
// came with the last descriptor on the daemon's side.
[[nodiscard]] char &ServiceImplExchangeByte();

// Closes the descriptor in `*slot`, unless it is -1, and puts -1 there.  When close(2) fails the
// result is false, and `*ok` too if `ok` is not null.
bool ServiceImplClose(int *slot, bool *ok);

enum : int {
  SERVICEIMPL_READ_ERROR = 0,
  SERVICEIMPL_READ_EOF = 1,
  SERVICEIMPL_READ_BYTE = 2,
};

// Reads one byte from `fd` into `*byte`; the result is one of SERVICEIMPL_READ_*.  A call that a
// signal interrupts is an error.
[[nodiscard]] int ServiceImplReadOne(int fd, char *byte);

// Writes one byte.  False on failure, silently when the reader has gone (EPIPE).  The caller sees
// to it that SIGPIPE is ignored.
[[nodiscard]] bool ServiceImplWriteOne(int fd, char byte);

// Sends the exchange byte with the descriptor `fd`.  False on failure, silently when the peer has
// gone (EPIPE); no signal, after Platform_SetNoSigpipe.
[[nodiscard]] bool ServiceImplSendFd(int sock, int fd);

// Receives the exchange byte with one descriptor, which the caller owns then.  False on failure,
// silently when the peer has gone.  What else came with an unexpected message is closed, as far
// as the host delivered it.
[[nodiscard]] bool ServiceImplRecvFd(int sock, int *fd);

// Makes `fd`, and all that share its open file, blocking or not.
[[nodiscard]] bool ServiceImplSetBlockingState(int fd, bool blocking);
