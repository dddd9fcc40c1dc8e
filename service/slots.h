// slots.h -- room for connections, and how much of it each user may have.
//
// A *silent* peer has been greeted and has sent nothing yet.  Nobody knows its user, so all users
// share the places of silent peers, and each is lent for a short time.  A new peer always gets one: if
// all are taken, the peer that has been silent longest gives way.  A *delivery* has a user, and
// lasts as long as that user likes.  A user may begin another one while fewer of theirs go on than
// places are free: one user alone gets half of the places, the next one half of the rest.  So it
// takes eleven users who work together to leave none.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "service/connection.h"

class Slots {
  static constexpr size_t kMaxDeliveries = 1024;
  static constexpr size_t kMaxSilent = 512;

  std::array<Connection, kMaxDeliveries + kMaxSilent> connections_;
  size_t numUsed_ = 0;  // those from here on are free; a few before may be free, too
  unsigned lastSerial_ = 0;

  std::span<const Connection> Used() const { return {connections_.data(), numUsed_}; }
  template <typename Condition>
  size_t Count(Condition condition) const {
    return static_cast<size_t>(std::ranges::count_if(Used(), condition));
  }
  Connection &FindFree();

 public:
  static constexpr size_t kCount = kMaxDeliveries + kMaxSilent;

  // All connections that may be open.
  std::span<Connection> Used() { return {connections_.data(), numUsed_}; }

  // Begins with a newly accepted peer.
  void Greet(Fd peer, int64_t nowMs);

  // Makes the peer that has been silent longest give way; false when none is silent.
  bool EndLongestSilence();

  bool MayBeginDelivery(uid_t user) const;

  // How long poll(2) may wait until a silent peer's time is over; -1 when there is none.
  int MsToEndOfSilence(int64_t nowMs) const;

  // Once a turn: closes the silent peers whose time is over.
  void EndSilence(int64_t nowMs);

  size_t CountOpen() const;
};
