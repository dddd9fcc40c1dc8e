// fakeService.h -- a scripted service: what it does with each connection is a list of steps.
#pragma once

#include <atomic>
#include <functional>
#include <string>
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

// Steps.  Greet, Receive and Answer are for making others; the rest are whole connections.
void Greet(int connection, char byte = 'g');
struct Received {
  char byte = 0;
  Fd fd;
};
Received Receive(int connection);
void Answer(int connection, char byte);

// A socket that listens at `path`, which is replaced.
Fd ListenAt(const std::string &path);
