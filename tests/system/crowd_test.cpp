// crowd_test.cpp -- many openers at the same moment, with nobody listening; and the same while some
// of them are being killed.  LUMEN_ROUNDS makes the crowds larger and the rounds more.

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/support/product.h"

namespace {

const size_t kCrowd = Rounds() > 10 ? 64 : 24;

// Microseconds that a start takes, staging included: the range for the moments.
unsigned StartTime() {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("first").Get())));
  const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
  return static_cast<unsigned>(time.count());
}

std::string Token(int round, size_t number) {
  return "round " + std::to_string(round) + ", opener " + std::to_string(number);
}

// Openers that wait for a gate, each with a token of its own.
class Crowd {
  Pipe gate_;
  std::vector<std::unique_ptr<Process>> openers_;

 public:
  explicit Crowd(int round, size_t size = kCrowd) {
    for (size_t i = 0; i < size; i++) {
      const Fd token = FileWith(Token(round, i));
      Launch launch = OpenerLaunch(token.Get());
      const auto openArgument = launch.adjust;
      launch.adjust = [&] {
        openArgument();
        // The end of file comes when nobody has the write end any more.
        gate_.write.Reset();
        char ignored;
        if (read(gate_.read.Get(), &ignored, 1) != 0) _exit(125);
      };
      openers_.push_back(std::make_unique<Process>(launch));
    }
  }
  void Open() { gate_.write.Reset(); }
  Process &operator[](size_t i) { return *openers_[i]; }
  size_t Size() const { return openers_.size(); }
};

using CrowdTest = ProductTest;

// Each one left alive has delivered its token; whoever may have been killed has, or has not.
int ExpectDelivered(Crowd *crowd, int round, const std::set<size_t> &killed = {}) {
  int delivered = 0;
  for (size_t i = 0; i < crowd->Size(); i++) {
    const Outcome outcome = Finish(&(*crowd)[i]);
    // The signal may have come after the opener's last step.
    if (killed.contains(i) && outcome.status == 128 + SIGKILL) continue;
    EXPECT_EQ(kDelivered, outcome) << Token(round, i);
    EXPECT_TRUE(ServiceRead(Token(round, i)));
    delivered++;
  }
  EXPECT_EQ(1U, Services().size());
  return delivered;
}

TEST_F(CrowdTest, StartsOneServiceThatServesAll) {
  for (int round = 0; round < Rounds(); round++) {
    Reset();
    Crowd crowd(round);
    crowd.Open();
    ExpectDelivered(&crowd, round);
    const std::string log = ServiceLog();
    EXPECT_EQ(1U, Count(log, "Started: "));
    EXPECT_EQ(kCrowd, Count(log, ": end after ")) << log;
  }
}

// Whoever is killed while it prepares the service leaves its place to another one.
TEST_F(CrowdTest, SurvivesTheDeathOfAnyOfThem) {
  std::mt19937 random(20201);
  const unsigned startTime = StartTime();
  for (int round = 0; round < 4 * Rounds(); round++) {
    Reset();
    Crowd crowd(round);
    crowd.Open();
    std::set<size_t> killed;
    for (size_t i = 0; i < crowd.Size() / 2; i++) {
      usleep(static_cast<useconds_t>(random() % (4 * startTime / crowd.Size())));
      const size_t victim = random() % crowd.Size();
      if (crowd[victim].Running() && killed.insert(victim).second) crowd[victim].Signal(SIGKILL);
    }
    const int delivered = ExpectDelivered(&crowd, round, killed);
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("the next one").Get())));
    EXPECT_TRUE(ServiceRead("the next one"));
    printf("round %d: %d of %zu delivered, %zu services started\n", round, delivered, kCrowd,
           Count(ServiceLog(), "Started: "));
  }
}

// The one that has found nobody listening dies somewhere between its first step and its last, while
// others already wait in the queue of its socket.
TEST_F(CrowdTest, SurvivesTheDeathOfTheOneThatStartsTheService) {
  std::mt19937 random(20202);
  const unsigned startTime = StartTime();
  int beforeService = 0;
  for (int round = 0; round < 8 * Rounds(); round++) {
    Reset();
    Crowd crowd(round, 8);
    Process leader(OpenerLaunch(FileWith("leader").Get()));
    usleep(static_cast<useconds_t>(random() % 1000));
    crowd.Open();
    usleep(static_cast<useconds_t>(random() % startTime));
    leader.Signal(SIGKILL);
    beforeService += Services().empty() ? 1 : 0;
    leader.Wait();
    ExpectDelivered(&crowd, round);
  }
  printf("%d rounds, killed before there was a service in %d\n", 8 * Rounds(), beforeService);
}

}  // namespace
