// crowd_test.cpp -- many openers at the same moment, with nobody listening; and the same while some
// of them are being killed.  LUMEN_ROUNDS makes the crowds larger and the rounds more.

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <deque>
#include <random>
#include <set>
#include <string>

#include "tests/support/product.h"

namespace {

const size_t kCrowd = Rounds() > 10 ? 64 : 24;

std::string Token(int round, size_t number) {
  return "round " + std::to_string(round) + ", opener " + std::to_string(number);
}

// Openers that wait for a gate, each with a token of its own.
class Crowd {
  Pipe gate_;
  std::deque<Process> openers_;

 public:
  explicit Crowd(int round) {
    for (size_t i = 0; i < kCrowd; i++) {
      openers_.emplace_back(OpenerLaunch(FileWith(Token(round, i)), [&] {
        // The end of file comes when nobody has the write end any more.
        gate_.write.Reset();
        char ignored;
        if (read(gate_.read.Get(), &ignored, 1) != 0) _exit(125);
      }));
    }
  }
  void Open() { gate_.write.Reset(); }
  Process *operator[](size_t i) { return &openers_[i]; }
};

using CrowdTest = ProductTest;

// Each one left alive has delivered its token; whoever may have been killed has, or has not.
void ExpectDelivered(Crowd *crowd, int round, const std::set<size_t> &killed) {
  int delivered = 0, staged = 0;
  for (size_t i = 0; i < kCrowd; i++) {
    const Outcome outcome = Finish((*crowd)[i]);
    staged += (*crowd)[i]->Output().find("constructWorkingDir") != std::string::npos ? 1 : 0;
    // The signal may have come after the opener's last step.
    if (killed.contains(i) && outcome.status == 128 + SIGKILL) continue;
    EXPECT_EQ(kDelivered, outcome) << Token(round, i);
    EXPECT_TRUE(ServiceRead(Token(round, i)));
    delivered++;
  }
  printf("round %d: %d of %zu delivered, %d staged\n", round, delivered, kCrowd, staged);
}

// In all rounds but the first of nine half of them are killed, at moments that are spread over the
// time of one start after another.  Whoever is killed while it prepares the service, with others in
// the queue of its socket, leaves its place to another one.
TEST_F(CrowdTest, StartsOneServiceThatServesAllWhoLive) {
  std::mt19937 random(20201);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("first"))));
  const std::chrono::microseconds time = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - start);
  const size_t longest = 4 * static_cast<size_t>(time.count()) / kCrowd;
  for (int round = 0; round < 9 * Rounds(); round++) {
    Reset();
    Crowd crowd(round);
    crowd.Open();
    std::set<size_t> killed;
    for (size_t i = 0; round % 9 != 0 && i < kCrowd / 2; i++) {
      usleep(static_cast<useconds_t>(random() % longest));
      const size_t victim = random() % kCrowd;
      if (crowd[victim]->Running() && killed.insert(victim).second) crowd[victim]->Signal(SIGKILL);
    }
    ExpectDelivered(&crowd, round, killed);
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("the next one"))));
    EXPECT_TRUE(ServiceRead("the next one"));
    EXPECT_EQ(1U, Count(ServiceLog(), "Started: "));
    EXPECT_EQ(1U, Services().size());
  }
}

}  // namespace
