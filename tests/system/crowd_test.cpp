// crowd_test.cpp -- many openers start at the same moment with nobody listening, also while openers and
// their children are stopped and killed, and the service is stopped.  LUMEN_ROUNDS makes larger crowds and
// more rounds.

#include <chrono>
#include <deque>
#include <set>

#include "tests/support/product.h"

namespace {

const bool kLong = Rounds() > 10;
const size_t kCrowd = kLong ? 500 : 24;
const int kRounds = kLong ? 27 : 9;

std::string Token(int round, size_t number) {
  return "round " + std::to_string(round) + ", opener " + std::to_string(number);
}

// Openers that wait until a gate opens, each with its own token.
class Crowd {
  Pipe gate_;
  std::deque<Process> openers_;

 public:
  explicit Crowd(int round) {
    for (size_t i = 0; i < kCrowd; i++) {
      openers_.emplace_back(OpenerLaunch(FileWith(Token(round, i)), [&] {
        // Reads an end of file when the last write end is closed.
        gate_.write.Reset();
        char ignored;
        if (read(gate_.read.Get(), &ignored, 1) != 0 || setpgid(0, 0) != 0) _exit(125);
      }));
    }
  }
  void Open() { gate_.write.Reset(); }
  Process *operator[](size_t i) { return &openers_[i]; }
};

// Stops and kills openers, alone or together with their children that are not daemons yet, and stops the
// service.
class Storm {
  static constexpr size_t kMostStopped = 16;

  std::mt19937 random_{20201};
  std::deque<pid_t> stopped_;  // arguments of kill(2): negative for a process with its children

  void Stop(pid_t target) {
    kill(target, SIGSTOP);
    stopped_.push_back(target);
  }

 public:
  size_t Random(size_t limit) { return random_() % limit; }

  void Strike(Crowd *crowd, std::set<size_t> *killed) {
    const size_t i = Random(kCrowd);
    Process *const opener = (*crowd)[i];
    const pid_t target = Random(2) == 0 ? opener->Pid() : -opener->Pid();
    if (Random(8) == 0) {
      for (const pid_t service : Services()) Stop(service);
    } else if (!opener->Running()) {
      return;
    } else if (Random(2) == 0) {
      Stop(target);
    } else if (killed->insert(i).second) {
      kill(target, SIGKILL);
    }
    if (stopped_.size() > kMostStopped) Continue();
  }
  void Continue() {
    kill(stopped_.front(), SIGCONT);
    stopped_.pop_front();
  }
  void End() {
    while (!stopped_.empty()) Continue();
  }
};

using CrowdTest = ProductTest;

// All openers have delivered their tokens, except that killed ones may not have.
void ExpectDelivered(Crowd *crowd, int round, const std::set<size_t> &killed) {
  for (size_t i = 0; i < kCrowd; i++) {
    const Outcome outcome = Finish((*crowd)[i]);
    // The signal may have come after the opener's last step.
    if (killed.contains(i) && outcome.status == 128 + SIGKILL) continue;
    EXPECT_EQ(kDelivered, outcome) << Token(round, i);
    EXPECT_TRUE(ServiceRead(Token(round, i)));
  }
}

// Every round but the first of nine has a storm, spread over the time that a few starts take.  If an opener
// is killed while it prepares the service, another one from its queue takes its place.  In every other
// round of a long run the openers are refused as on macOS.
TEST_F(CrowdTest, StartsOneServiceThatServesAllSurvivors) {
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("first"))));
  const std::chrono::microseconds time = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - start);
  const size_t longest = static_cast<size_t>(time.count()) / (kLong ? 50 : 6);
  Storm storm;
  for (int round = 0; round < kRounds; round++) {
    Reset();
    if (kLong && round % 2 == 1) InstallOpener("refusedOpener");
    Crowd crowd(round);
    crowd.Open();
    std::set<size_t> killed;
    for (size_t i = 0; round % 9 != 0 && i < kCrowd; i++) {
      usleep(static_cast<useconds_t>(storm.Random(longest)));
      storm.Strike(&crowd, &killed);
    }
    storm.End();
    ExpectDelivered(&crowd, round, killed);
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("the next one"))));
    EXPECT_TRUE(ServiceRead("the next one"));
    EXPECT_EQ(1U, Count(ServiceLog(), "Started: "));
    EXPECT_EQ(1U, Services().size());
  }
}

}  // namespace
