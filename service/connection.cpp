// connection.cpp -- the handshake: greeting, descriptor, answer.
//
// Only root can connect, so the peer is an opener.  But an opener runs on behalf of any user, who may stop
// it, kill it, and start a thousand more.  So a peer may send nothing, close at any point, or send
// anything; at worst that ends its own connection.
// Tests: tests/system/service_test.cpp

#include "service/connection.h"

#include <fcntl.h>
#include <poll.h>

#include <utility>

#include "lib/public/log.h"
#include "opener/serviceImplWire.h"
#include "platform/senderUser.h"
#include "service/slots.h"

namespace {

constexpr char kAccepted = '1';
constexpr char kRefused = '0';

// Any byte would do; varying it lets the check of the echo detect a mix-up.
char GreetingFor(unsigned serial) {
  return static_cast<char>('A' + serial % 26);
}

// poll(2) on macOS does not support terminals and reports POLLNVAL: any event is a reason to read.
bool IsReadable(int fd) {
  pollfd watched = {fd, POLLIN, 0};
  return poll(&watched, 1, 0) > 0;
}

}  // namespace

void Connection::Greet(Fd peer, unsigned serial, int64_t nowMs) {
  serial_ = serial;
  greeting_ = GreetingFor(serial);
  greetedMs_ = nowMs;
  // The opener sends nothing before the greeting, so the preparation is in time.  On macOS accepted
  // sockets inherit O_NONBLOCK from the listening one; on Linux they do not.
  const bool ok = Platform_PrepareForSender(peer.Get()) &&
                  ServiceImplSetBlockingState(peer.Get(), false) &&
                  ServiceImplWriteOne(peer.Get(), greeting_);
  if (!ok) {
    Log("#%u: gone before the greeting.\n", serial_);
    return;
  }
  peer_ = std::move(peer);
}

// The event may be stale: an earlier step of the same turn may have read the data, or reused this object
// for a new peer.
void Connection::Proceed(const Slots &slots) {
  if (!IsReadable(Descriptor())) return;
  if (peer_) {
    ReceiveDescriptor(slots);
  } else {
    delivery_.ReadSome(serial_);
  }
}

// Null to accept.  Only what can never be read is refused here; other problems show up while reading.
const char *Connection::ReasonToRefuse(int fd, const Slots &slots) const {
  if (ServiceImplExchangeByte() != greeting_) return "the greeting came back changed";
  const int flags = fcntl(fd, F_GETFL);
  if (flags == -1 || (flags & O_ACCMODE) == O_WRONLY) return "the descriptor cannot be read";
  if (!slots.MayBeginDelivery(user_)) return "the user's share is used up";
  return nullptr;
}

void Connection::ReceiveDescriptor(const Slots &slots) {
  int received = -1;
  // Both fail if the peer has closed.
  if (!Platform_SenderUser(peer_.Get(), &user_) || !ServiceImplRecvFd(peer_.Get(), &received)) {
    Log("#%u: no descriptor came.\n", serial_);
    peer_.Reset();
    return;
  }
  Fd fd(received);
  const auto user = static_cast<unsigned>(user_);
  const char *const reason = ReasonToRefuse(fd.Get(), slots);
  if (reason != nullptr) {
    Log("#%u: user %u refused: %s.\n", serial_, user, reason);
    (void)ServiceImplWriteOne(peer_.Get(), kRefused);
  } else if (ServiceImplWriteOne(peer_.Get(), kAccepted)) {
    // The write proves that the peer was still there, so user_ is its user.
    Log("#%u: accepted a descriptor of user %u.\n", serial_, user);
    delivery_.Begin(std::move(fd));
  } else {
    // The opener cannot report success to its caller, so the descriptor is not kept either.
    Log("#%u: gone before the answer.\n", serial_);
  }
  peer_.Reset();
}

void Connection::EndSilence(const Slots &slots) {
  Proceed(slots);
  if (!peer_) return;
  Log("#%u: no answer to the greeting.\n", serial_);
  peer_.Reset();
}
