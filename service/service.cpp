// service.cpp -- the loop.  Each turn waits for events, lets every connection that has one take one
// step, and accepts whoever is new.  No step waits for a peer, so none holds up the others.

#include "service/service.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "log.h"
#include "opener/serviceImplWire.h"

namespace {

// How long accept rests when descriptors have run out: the listening socket stays readable all the
// while, and would turn the loop into a spin.
constexpr int kStarvedMs = 100;

bool IsStarvation(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

Service::Service(Fd listener, Fd status, Fd stop)
    : listener_(std::move(listener)), status_(std::move(status)), stop_(std::move(stop)) {}

Connection *Service::FindFree() {
  const auto found = std::ranges::find_if(connections_, &Connection::IsFree);
  return found == connections_.end() ? nullptr : &*found;
}

void Service::Watch(int fd, Connection *owner) {
  if (fd < 0) return;
  watched_[numWatched_] = {fd, POLLIN, 0};
  owners_[numWatched_++] = owner;
}

// Watches what is open and nothing else: poll(2) refuses a list longer than the descriptor limit.
// The order is that in which events are handled: whoever leaves makes room for the new ones.
bool Service::Wait() {
  numWatched_ = 0;
  Watch(stop_.Get(), nullptr);
  Watch(status_.Get(), nullptr);
  for (Connection &connection : connections_) Watch(connection.Descriptor(), &connection);
  if (!starved_ && FindFree() != nullptr) Watch(listener_.Get(), nullptr);

  const int events =
      poll(watched_.data(), static_cast<nfds_t>(numWatched_), starved_ ? kStarvedMs : -1);
  if (events >= 0) return true;
  if (errno == EINTR) {
    numWatched_ = 0;  // there are no events
    return true;
  }
  Warning("poll errno %d.\n", errno);
  return false;
}

// Once for each time of need, not once for each attempt.
void Service::NoteAcceptFailure(int error) {
  const bool starved = IsStarvation(error);
  if (!starved || !starved_) Warning("accept errno %d.\n", error);
  starved_ = starved;
}

void Service::AcceptAll() {
  while (Connection *const free = FindFree()) {
    Fd peer(accept(listener_.Get(), nullptr, nullptr));
    if (!peer) {
      const int error = errno;
      if (error == ECONNABORTED || error == EINTR) continue;
      if (error == EAGAIN || error == EWOULDBLOCK) {
        starved_ = false;
      } else {
        NoteAcceptFailure(error);
      }
      return;
    }
    starved_ = false;
    free->Greet(std::move(peer), ++lastSerial_);
  }
}

// Nothing is ever written into the pipe; only its end says something.
void Service::ReadStatus() {
  char ignored;
  if (read(status_.Get(), &ignored, 1) != 0) return;
  Log("The opener that started this service has finished.\n");
  status_.Reset();
}

void Service::Stop() {
  const auto open =
      std::ranges::count_if(connections_, [](const Connection &c) { return !c.IsFree(); });
  Log("Stopped with %d connections open.\n", static_cast<int>(open));
}

bool Service::Run() {
  if (!ServiceImplSetBlockingState(listener_.Get(), false)) return false;
  while (Wait()) {
    for (size_t i = 0; i < numWatched_; i++) {
      if (watched_[i].revents == 0) continue;
      if (owners_[i] != nullptr) {
        owners_[i]->Proceed();
      } else if (watched_[i].fd == stop_.Get()) {
        Stop();
        return true;
      } else if (watched_[i].fd == status_.Get()) {
        ReadStatus();
      } else {
        AcceptAll();
      }
    }
    if (starved_) AcceptAll();
  }
  return false;
}
