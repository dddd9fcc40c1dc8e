// slots.cpp -- the table of connections.
// Tests: tests/system/service_test.cpp

#include "service/slots.h"

#include <utility>

namespace {

// An opener answers the greeting within microseconds, unless it waits for a processor or its user has
// stopped it.  One that is too late fails: after the greeting an opener does not try again.
constexpr int64_t kMsToAnswer = 10'000;

}  // namespace

// There is always one for a new silent peer, since both silent peers and deliveries are limited.
Connection &Slots::FindFree() {
  const auto used = Used();
  const auto found = std::ranges::find_if(used, &Connection::IsFree);
  return found != used.end() ? *found : connections_[numUsed_++];
}

void Slots::Greet(Fd peer, int64_t nowMs) {
  if (Count(&Connection::IsSilent) == kMaxSilent) EndLongestSilence();
  FindFree().Greet(std::move(peer), ++lastSerial_, nowMs);
}

bool Slots::EndLongestSilence() {
  Connection *longest = nullptr;
  unsigned numSince = 0;
  for (Connection &connection : Used()) {
    const unsigned since = lastSerial_ - connection.Serial();
    if (!connection.IsSilent() || (longest != nullptr && since < numSince)) continue;
    longest = &connection;
    numSince = since;
  }
  if (longest != nullptr) longest->EndSilence(*this);
  return longest != nullptr;
}

bool Slots::MayBeginDelivery(uid_t user) const {
  const size_t all = Count(&Connection::IsDelivery);
  const size_t own = Count([=](const Connection &c) { return c.IsDelivery() && c.User() == user; });
  return own < kMaxDeliveries - all;
}

int Slots::MsToEndOfSilence(int64_t nowMs) const {
  int64_t longest = -1;
  for (const Connection &connection : Used()) {
    if (connection.IsSilent()) longest = std::max(longest, connection.MsSilent(nowMs));
  }
  return longest < 0 ? -1 : static_cast<int>(std::max<int64_t>(0, kMsToAnswer - longest));
}

void Slots::EndSilence(int64_t nowMs) {
  for (Connection &connection : Used()) {
    if (connection.IsSilent() && connection.MsSilent(nowMs) >= kMsToAnswer) {
      connection.EndSilence(*this);
    }
  }
  while (numUsed_ > 0 && connections_[numUsed_ - 1].IsFree()) numUsed_--;
}

size_t Slots::CountOpen() const {
  return Count([](const Connection &connection) { return !connection.IsFree(); });
}
