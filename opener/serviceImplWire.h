// serviceImplWire.h -- the bytes and the descriptor on one connection, for both of its ends.
//
// docs/protocol.md: the daemon greets with one byte, the opener sends that byte back with the
// descriptor (SCM_RIGHTS), the daemon answers "1" or refuses.  Each failure is logged once, unless
// stated otherwise.  One thread only: the exchange byte is a global.
#pragma once

// The byte sent with a descriptor: on the opener's side the greeting, which is sent back; on the
// daemon's side the byte that came with the last descriptor.
[[nodiscard]] char &ServiceImplExchangeByte();

// Closes the descriptor in `*slot`, unless it is -1, and stores -1 there.  If close(2) fails, returns
// false and sets `*ok` to false as well, unless `ok` is null.
bool ServiceImplClose(int *slot, bool *ok);

enum : int {
  SERVICEIMPL_READ_ERROR = 0,
  SERVICEIMPL_READ_EOF = 1,
  SERVICEIMPL_READ_BYTE = 2,
};

// Reads one byte from `fd` into `*byte`; the result is one of SERVICEIMPL_READ_*.  A call that a
// signal interrupts is an error.
[[nodiscard]] int ServiceImplReadOne(int fd, char *byte);

// Writes one byte.  False on failure, without a record if the reader has closed (EPIPE).  The caller
// must ignore SIGPIPE.
[[nodiscard]] bool ServiceImplWriteOne(int fd, char byte);

// Sends the exchange byte with the descriptor `fd`.  False on failure, without a record if the peer has
// closed (EPIPE).  Raises no SIGPIPE if Platform_SetNoSigpipe was called on `sock`.
[[nodiscard]] bool ServiceImplSendFd(int sock, int fd);

// Receives the exchange byte with one descriptor, which the caller then owns.  False on failure, without
// a record if the peer has closed.  Descriptors that came with an unexpected message are closed.
[[nodiscard]] bool ServiceImplRecvFd(int sock, int *fd);

// Makes the open file behind `fd`, which other descriptors may share, blocking or not.
[[nodiscard]] bool ServiceImplSetBlockingState(int fd, bool blocking);
