// fakeService.h -- a scripted service: what it does with each connection is a list of steps; and
// the pieces of the protocol, written anew as a second opinion.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "fd.h"

class FakeService {
 public:
  // What to do with a connected opener; the connection is closed afterwards.
  using Step = std::function<void(int connection)>;

  // Listens at `path`, mode 0600; the n-th connection gets the n-th step, further ones the last.
  FakeService(const std::string &path, std::vector<Step> script);
  ~FakeService();

  size_t Connections() const { return served_; }

 private:
  void Serve();

  std::vector<Step> script_;
  Fd listener_;
  std::atomic<size_t> served_ = 0;
  std::thread thread_;
};

// Sends one byte: the greeting, or the answer.
void Say(int connection, char byte);

struct Received {
  char byte = 0;
  Fd fd;
};
Received Receive(int connection);

// Sends one message: `payload` with `count` copies of `fd`.
void SendFds(int connection, std::string_view payload, int fd, size_t count);

// A socket that listens at `path`, which is replaced; one that is connected to it.
Fd ListenAt(const std::string &path);
Fd ConnectTo(const std::string &path);
