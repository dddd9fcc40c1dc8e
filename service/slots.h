// slots.h -- the table of connections, and how many of them each user may occupy.
//
// A *silent* peer has been greeted and has not answered yet.  Its user is unknown, so all users share the
// slots of silent peers, each for a short time.  A new peer always gets a slot: if all are taken, the
// peer that has been silent longest is closed.  A *delivery* belongs to a user and lasts as long as that
// user likes.  A user may start another one while they have fewer deliveries than there are free slots:
// a single user gets half of the slots, the next one half of the rest, so only eleven users together
// could take all.
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
  size_t numUsed_ = 0;  // all from this index on are free; some before it may be free, too
  unsigned lastSerial_ = 0;

  std::span<const Connection> Used() const { return {connections_.data(), numUsed_}; }
  template <typename Condition>
  size_t Count(Condition condition) const {
    return static_cast<size_t>(std::ranges::count_if(Used(), condition));
  }
  Connection &FindFree();

 public:
  static constexpr size_t kCount = kMaxDeliveries + kMaxSilent;

  // Includes all open connections.
  std::span<Connection> Used() { return {connections_.data(), numUsed_}; }

  // Starts with a newly accepted peer.
  void Greet(Fd peer, int64_t nowMs);

  // Closes the peer that has been silent longest; false if none is silent.
  bool EndLongestSilence();

  bool MayBeginDelivery(uid_t user) const;

  // The timeout for poll(2) until the first silent peer's time is over; -1 if none is silent.
  int MsToEndOfSilence(int64_t nowMs) const;

  // To be called once a turn: closes the silent peers whose time is over.
  void EndSilence(int64_t nowMs);

  size_t CountOpen() const;
};
