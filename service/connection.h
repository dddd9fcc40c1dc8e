// connection.h -- one opener, from the greeting to the end of file of what it delivered.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "lib/public/fd.h"
#include "service/delivery.h"

class Slots;

class Connection {
  Fd peer_;            // the socket, until the opener has got its answer
  Delivery delivery_;  // what it delivered
  uid_t user_ = 0;     // on whose behalf
  int64_t greetedMs_ = 0;
  unsigned serial_ = 0;
  char greeting_ = 0;

  void ReceiveDescriptor(const Slots &slots);
  const char *ReasonToRefuse(int fd, const Slots &slots) const;

 public:
  bool IsSilent() const { return bool(peer_); }
  bool IsDelivery() const { return delivery_.Descriptor() >= 0; }
  bool IsFree() const { return Descriptor() < 0; }

  unsigned Serial() const { return serial_; }
  // Only for a delivery.
  uid_t User() const { return user_; }
  // Only for a silent peer.
  int64_t MsSilent(int64_t nowMs) const { return nowMs - greetedMs_; }

  // The descriptor to poll; -1 for none.
  int Descriptor() const { return peer_ ? peer_.Get() : delivery_.Descriptor(); }

  // Starts with a newly accepted opener; all records about it contain `serial`.
  void Greet(Fd peer, unsigned serial, int64_t nowMs);

  // Performs one step if Descriptor() is readable; `slots` contains all connections, this one included.
  void Proceed(const Slots &slots);

  // Closes a silent peer, unless it has answered by now.
  void EndSilence(const Slots &slots);
};
