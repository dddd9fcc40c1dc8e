// service.h -- the event loop over all connections, the listening socket, the status pipe and the request
// to stop.
#pragma once

#include <poll.h>

#include <array>
#include <cstddef>

#include "lib/public/fd.h"
#include "service/slots.h"

// Too large for the stack.
class Service {
  static constexpr size_t kMaxWatched = 3 + Slots::kCount;

  Fd listener_;
  Fd status_;
  Fd stop_;
  Slots slots_;
  bool starved_ = false;  // no descriptors left for accept

  // What poll(2) watches, and the connection that it belongs to; null for the service's own.
  std::array<pollfd, kMaxWatched> watched_;
  std::array<Connection *, kMaxWatched> owners_;
  size_t numWatched_ = 0;

  void Watch(int fd, Connection *owner);
  bool Wait();
  void AcceptAll();
  bool GoOnAfterAcceptFailure(int error);
  void ReadStatus();
  void Stop();

 public:
  // Serves until `stop` becomes readable; logs a fatal error and returns false.  `listener` is a listening
  // socket, `status` the read end of a pipe.
  [[nodiscard]] bool Run(Fd listener, Fd status, Fd stop);
};
