// slots.cpp -- room for connections.

#include "service/slots.h"

namespace {

// An opener answers its greeting in microseconds, but it may have to wait for a processor, and its
// user may stop it.  While there are places, it has much time; when none is left, enough.  An opener
// that comes too late fails: it has been greeted, so it does not begin again.
constexpr int64_t kMsToAnswer = 10'000;
constexpr int64_t kMsToAnswerInCrowd = 3'000;

}  // namespace

int64_t Slots::MsToAnswer() const {
  return HasRoomForPeer() ? kMsToAnswer : kMsToAnswerInCrowd;
}

// There is always a free one: neither silent peers nor deliveries exceed their number.
Connection *Slots::FindForPeer() {
  const auto used = Used();
  const auto found = std::ranges::find_if(used, &Connection::IsFree);
  return found != used.end() ? &*found : &connections_[numUsed_++];
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
  return longest < 0 ? -1 : static_cast<int>(std::max<int64_t>(0, MsToAnswer() - longest));
}

void Slots::EndSilence(int64_t nowMs) {
  const int64_t limit = MsToAnswer();
  for (Connection &connection : Used()) {
    if (connection.IsSilent() && connection.MsSilent(nowMs) >= limit) connection.EndSilence();
  }
  while (numUsed_ > 0 && connections_[numUsed_ - 1].IsFree()) numUsed_--;
}

size_t Slots::CountOpen() const {
  return Count([](const Connection &connection) { return !connection.IsFree(); });
}
