// connection.h -- one opener, from its greeting to the end of what it delivered.
#pragma once

#include "fd.h"
#include "service/delivery.h"

class Connection {
  Fd peer_;            // the opener, until it has been answered
  Delivery delivery_;  // what it delivered
  unsigned serial_ = 0;
  char greeting_ = 0;

  void ReceiveDescriptor();
  const char *ReasonToRefuse(int fd) const;

 public:
  bool IsFree() const { return Descriptor() < 0; }

  // The descriptor to wait for, -1 when there is none.
  int Descriptor() const { return peer_ ? peer_.Get() : delivery_.Descriptor(); }

  // Begins with a newly accepted opener; `serial` stands in all records about it.
  void Greet(Fd peer, unsigned serial);

  // One step, after Descriptor() has become readable.
  void Proceed();
};
