// service.cpp -- the event loop.  Each turn waits for events and performs one step of every connection
// that has one.  No step waits for a peer, so none delays the others; slots.h limits how many connections
// a user can occupy.
//
// New peers are accepted after every step, however many connections are open: on macOS, openers assume
// that a service is dead if its queue stays full for 310 ms, and start a second one.
// Tests: tests/system/service_test.cpp

#include "service/service.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "lib/public/log.h"
#include "lib/public/monotonicClock.h"
#include "opener/serviceImplWire.h"

namespace {

// The pause before the next accept when descriptors have run out: the listening socket stays readable, and
// the loop would spin.
constexpr int kStarvedMs = 100;

bool IsStarvation(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

void Service::Watch(int fd, Connection *owner) {
  if (fd < 0) return;
  watched_[numWatched_] = {fd, POLLIN, 0};
  owners_[numWatched_++] = owner;
}

// The list contains open descriptors only: poll(2) refuses one longer than the descriptor limit.
bool Service::Wait() {
  numWatched_ = 0;
  Watch(stop_.Get(), nullptr);
  Watch(status_.Get(), nullptr);
  for (Connection &connection : slots_.Used()) Watch(connection.Descriptor(), &connection);
  if (!starved_) Watch(listener_.Get(), nullptr);

  const int timeoutMs = starved_ ? kStarvedMs : slots_.MsToEndOfSilence(MonotonicClock_Ms());
  const int events = poll(watched_.data(), static_cast<nfds_t>(numWatched_), timeoutMs);
  if (events >= 0) return true;
  if (errno == EINTR) {
    numWatched_ = 0;  // there are no events
    return true;
  }
  Warning("poll errno %d.\n", errno);
  return false;
}

// Whether to call accept again at once.
bool Service::GoOnAfterAcceptFailure(int error) {
  if (error == ECONNABORTED || error == EINTR) return true;
  const bool starved = IsStarvation(error);
  if (starved && slots_.EndLongestSilence()) return true;  // which frees a descriptor
  const bool isNews = error != EAGAIN && error != EWOULDBLOCK && !(starved && starved_);
  if (isNews) Warning("accept errno %d.\n", error);  // once, not for each attempt
  starved_ = starved;
  return false;
}

// The loop ends, because openers connect one at a time, under their lock.
void Service::AcceptAll() {
  for (;;) {
    Fd peer(accept(listener_.Get(), nullptr, nullptr));
    if (peer) {
      starved_ = false;
      slots_.Greet(std::move(peer), MonotonicClock_Ms());
    } else if (!GoOnAfterAcceptFailure(errno)) {
      return;
    }
  }
}

// Nothing is ever written to the pipe; only its end of file means something.
void Service::ReadStatus() {
  char ignored;
  if (read(status_.Get(), &ignored, 1) != 0) return;
  Log("The opener that started this service has finished.\n");
  status_.Reset();
}

void Service::Stop() {
  Log("Stopped with %d connections open.\n", static_cast<int>(slots_.CountOpen()));
}

bool Service::Run(Fd listener, Fd status, Fd stop) {
  listener_ = std::move(listener);
  status_ = std::move(status);
  stop_ = std::move(stop);
  if (!ServiceImplSetBlockingState(listener_.Get(), false)) return false;
  while (Wait()) {
    for (size_t i = 0; i < numWatched_; i++) {
      if (watched_[i].revents == 0) continue;
      if (owners_[i] != nullptr) {
        owners_[i]->Proceed(slots_);
      } else if (watched_[i].fd == stop_.Get()) {
        Stop();
        return true;
      } else if (watched_[i].fd == status_.Get()) {
        ReadStatus();
      }
      if (!starved_) AcceptAll();
    }
    slots_.EndSilence(MonotonicClock_Ms());
    if (starved_) AcceptAll();
  }
  return false;
}
