// connection.cpp -- the handshake: greeting, descriptor, answer.
//
// The peer may be anything: it may say nothing, leave at any point, or send garbage.  Whatever it
// does ends this connection at most.

#include "service/connection.h"

#include <fcntl.h>

#include <utility>

#include "log.h"
#include "opener/serviceImplWire.h"

namespace {

constexpr char kAccepted = '1';
constexpr char kRefused = '0';

// Any byte would do; different ones let the check of the echo notice a mix-up.
char GreetingFor(unsigned serial) {
  return static_cast<char>('A' + serial % 26);
}

}  // namespace

void Connection::Greet(Fd peer, unsigned serial) {
  serial_ = serial;
  greeting_ = GreetingFor(serial);
  // An accepted socket inherits this from the listening one on macOS only.
  const bool ok =
      ServiceImplSetBlockingState(peer.Get(), false) && ServiceImplWriteOne(peer.Get(), greeting_);
  if (!ok) {
    Log("#%u: gone before the greeting.\n", serial_);
    return;
  }
  peer_ = std::move(peer);
}

void Connection::Proceed() {
  if (peer_) {
    ReceiveDescriptor();
  } else {
    delivery_.ReadSome(serial_);
  }
}

// What cannot be read is refused at once; all else shows when it is read.
const char *Connection::ReasonToRefuse(int fd) const {
  if (ServiceImplExchangeByte() != greeting_) return "the greeting came back changed";
  const int flags = fcntl(fd, F_GETFL);
  if (flags == -1 || (flags & O_ACCMODE) == O_WRONLY) return "the descriptor cannot be read";
  return nullptr;
}

void Connection::ReceiveDescriptor() {
  int received = -1;
  if (!ServiceImplRecvFd(peer_.Get(), &received)) {
    Log("#%u: no descriptor came.\n", serial_);
    peer_.Reset();
    return;
  }
  Fd fd(received);
  const char *const reason = ReasonToRefuse(fd.Get());
  if (reason != nullptr) {
    Log("#%u: refused: %s.\n", serial_, reason);
    (void)ServiceImplWriteOne(peer_.Get(), kRefused);
  } else if (ServiceImplWriteOne(peer_.Get(), kAccepted)) {
    Log("#%u: accepted a descriptor.\n", serial_);
    delivery_.Begin(std::move(fd));
  } else {
    // The opener will not tell its caller of a success, so the descriptor is not kept either.
    Log("#%u: gone before the answer.\n", serial_);
  }
  peer_.Reset();
}
