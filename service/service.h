// service.h -- the poll loop: every connection, the listening socket, the status pipe, the wish to
// stop.
#pragma once

#include <poll.h>

#include <array>
#include <cstddef>

#include "fd.h"
#include "service/connection.h"

class Service {
  // A bound that no ordinary crowd reaches.  Openers beyond it wait in the listening socket's
  // queue.
  static constexpr size_t kMaxConnections = 512;
  enum Watched : size_t { kStop, kListener, kStatus, kFirstConnection };

  Fd listener_;
  Fd status_;
  Fd stop_;
  std::array<Connection, kMaxConnections> connections_;
  std::array<pollfd, kFirstConnection + kMaxConnections> watched_;
  unsigned lastSerial_ = 0;
  bool starved_ = false;  // no descriptors left for accept

  Connection *FindFree();
  bool Wait();
  void AcceptAll();
  void NoteAcceptFailure(int error);
  void ReadStatus();

 public:
  // `listener` is a listening socket, `status` a pipe's read end; `stop` becomes readable when the
  // service is to stop.
  Service(Fd listener, Fd status, Fd stop);

  // Serves until it is told to stop; false, logged, when it cannot go on.
  [[nodiscard]] bool Run();
};
