// connection.h -- one opener, from its greeting to the end of what it delivered.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "lib/public/fd.h"
#include "service/delivery.h"

class Slots;

class Connection {
  Fd peer_;            // the opener, until it has been answered
  Delivery delivery_;  // what it delivered
  uid_t user_ = 0;     // for whom
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
  // The user of a delivery.
  uid_t User() const { return user_; }
  // Of a silent peer: how long it has been.
  int64_t MsSilent(int64_t nowMs) const { return nowMs - greetedMs_; }

  // The descriptor to wait for, -1 when there is none.
  int Descriptor() const { return peer_ ? peer_.Get() : delivery_.Descriptor(); }

  // Begins with a newly accepted opener; `serial` stands in all records about it.
  void Greet(Fd peer, unsigned serial, int64_t nowMs);

  // One step, if Descriptor() is readable; `slots` has this connection and all others.
  void Proceed(const Slots &slots);

  // Gives a silent peer up, unless it has answered by now.
  void EndSilence(const Slots &slots);
};
