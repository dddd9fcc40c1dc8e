// service.h -- the poll loop: every connection, the listening socket, the status pipe, the wish to
// stop.
#pragma once

#include <poll.h>

#include <array>
#include <cstddef>

#include "lib/public/fd.h"
#include "service/slots.h"

// Large: not for the stack.
class Service {
  static constexpr size_t kMaxWatched = 3 + Slots::kCount;

  Fd listener_;
  Fd status_;
  Fd stop_;
  Slots slots_;
  bool starved_ = false;  // no descriptors left for accept

  // What poll(2) looks at, and whose it is: null for the service itself.
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
  // Serves until it is told to stop; false, logged, when it cannot go on.  `listener` is a listening
  // socket, `status` a pipe's read end; `stop` becomes readable when the service is to stop.
  [[nodiscard]] bool Run(Fd listener, Fd status, Fd stop);
};
