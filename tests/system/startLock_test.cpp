// startLock_test.cpp -- starts that go wrong: an attack on the moment between the check of the staged
// daemon and its execution, where a listener with a full queue refuses as if nobody listened; daemons
// that are slow to accept, die, or greet nobody.

#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <regex>
#include <thread>

#include "tests/support/peer.h"
#include "tests/support/product.h"
#include "tests/support/scratchDir.h"
#include "tests/support/trace.h"

namespace {

// Made by the changed daemon when it runs; says as which user.
const std::string kMark = "/run/unverified";

// An opener whose processes are stopped when they have made a certain system call: by SIGSTOP from
// root, which they cannot be shielded from.
class StoppedOpener {
  std::string tracePath_;
  Process process_;
  size_t continued_ = 0;

  static Launch Stopped(const std::string &tracePath, const std::string &call,
                        const std::string &path) {
    std::filesystem::remove(tracePath);
    return Traced({"-o", tracePath, "-f", "-P", path, "-e", "trace=" + call, "-e",
                   "inject=" + call + ":signal=SIGSTOP"});
  }

 public:
  // What stops them is `call` with `path`.
  StoppedOpener(const std::string &call, const std::string &path)
      : tracePath_(kTracePath + "." + call), process_(Stopped(tracePath_, call, path)) {}

  // The processes stopped so far, in turn.
  std::vector<pid_t> Stops() const {
    static const std::regex stop(R"((\d+) +--- stopped by SIGSTOP ---)");
    const std::string trace = ReadFile(tracePath_);
    std::vector<pid_t> pids;
    for (std::sregex_iterator at(trace.begin(), trace.end(), stop), end; at != end; ++at) {
      pids.push_back(std::stoi((*at)[1]));
    }
    return pids;
  }
  bool AwaitStop() const {
    return Eventually([this] { return Stops().size() > continued_; });
  }
  void Continue() { Check(kill(Stops().at(continued_++), SIGCONT) == 0, "kill"); }
  // Does not let it be stopped again; its exit status.
  int ContinueToEnd() {
    EXPECT_TRUE(Eventually([this] {
      if (Stops().size() > continued_) Continue();
      return !process_.Running();
    }));
    return process_.Wait();
  }
};

// Tells of every opening and closing of a file.
class Watch {
  Fd events_{inotify_init1(IN_CLOEXEC)};

 public:
  explicit Watch(const std::string &path) {
    Check(inotify_add_watch(events_.Get(), path.c_str(), IN_OPEN | IN_CLOSE) >= 0, "inotify");
  }
  // Whether there are `count` of them before long.
  bool Await(size_t count) const {
    std::vector<inotify_event> seen(count);
    for (size_t n = 0; n < count;) {
      pollfd ready = {events_.Get(), POLLIN, 0};
      if (poll(&ready, 1, Process::kTimeoutMs) != 1) return false;
      const ssize_t size = read(events_.Get(), seen.data(), (count - n) * sizeof seen[0]);
      n += static_cast<size_t>(size) / sizeof seen[0];
    }
    return true;
  }
};

class StartLock : public ProductTest {
 protected:
  // One of the openers that are refused as on macOS, and a daemon that root lets everybody write to.
  static void Install(const std::string &opener) {
    Reset();
    InstallOpener(opener);
    Shell("chmod 666 \"$daemon\"; rm -f " + kMark);
  }
  // A user's doing, in place: whatever root has checked in the open file may be something else now.
  static void ChangeDaemon() {
    Shell("printf '#!/bin/sh -p\\nid -u >" + kMark + "\\nexit\\n' |" +
          R"(setpriv --reuid 12345 --clear-groups dd of="$daemon" conv=notrunc status=none)");
  }
};

// ---- the attack ---------------------------------------------------------------------------------

// Shows that the attack is one.
TEST_F(StartLock, WithoutItAnUnverifiedFileRunsAsRoot) {
  Install("unlockedOpener");
  // The staged daemon has been checked and is about to be executed.
  StoppedOpener first("chdir", "/");
  ASSERT_TRUE(first.AwaitStop());
  Fd queued = ConnectTo(kSocketPath);
  // The bundle's daemon has been checked and is about to be copied.
  StoppedOpener second("openat", kStagedDaemon);
  ASSERT_TRUE(second.AwaitStop());
  ChangeDaemon();
  second.Continue();
  // The copy is about to be checked.
  ASSERT_TRUE(second.AwaitStop());
  first.Continue();
  EXPECT_TRUE(Eventually([] { return ReadFile(kMark) == "0\n"; }));
  queued.Reset();
  EXPECT_EQ(1, second.ContinueToEnd());
  EXPECT_EQ(1, first.ContinueToEnd());
}

TEST_F(StartLock, KeepsASecondOpenerFromStagingUntilTheFirstHasStartedItsDaemon) {
  for (int round = 0; round < 20 * Rounds(); round++) {
    Install("refusedOpener");
    StoppedOpener first("chdir", "/");
    ASSERT_TRUE(first.AwaitStop());
    Fd queued = ConnectTo(kSocketPath);
    const Watch startLock(kStartLockPath);
    StoppedOpener second("openat", kStagedDaemon);
    // The second opener has found it taken, and begins again.
    ASSERT_TRUE(startLock.Await(3));
    ChangeDaemon();
    EXPECT_TRUE(second.Stops().empty());
    queued.Reset();
    first.Continue();
    // Both openers are served; or they are refused, and fail to start the changed daemon, if the one
    // that runs is made slow by its tracer.
    second.ContinueToEnd();
    EXPECT_TRUE(second.Stops().empty());
    EXPECT_TRUE(Eventually([] { return Services().size() == 1; }));
    StopServices();  // The first tracer waits for it.
    first.ContinueToEnd();
    EXPECT_FALSE(std::filesystem::exists(kMark));
  }
}

// ---- daemons that serve late, or not ------------------------------------------------------------

TEST_F(StartLock, ADaemonThatIsSlowToAcceptIsNotReplaced) {
  Install("refusedOpener");
  const Fd listener = ListenAt(kSocketPath);
  ASSERT_EQ(0, listen(listener.Get(), 0));
  const Fd queued = ConnectTo(kSocketPath);
  Shell("touch '" + kStartLockPath + "'");
  const Watch startLock(kStartLockPath);
  Process opener(OpenerLaunch(FileWith("")));
  // The opener has been refused.
  ASSERT_TRUE(startLock.Await(1));
  Accept(listener);
  const Fd connection = Accept(listener);
  Say(connection, 'g');
  EXPECT_TRUE(Receive(connection).fd);
  Say(connection, '1');
  EXPECT_EQ(kDelivered, Finish(&opener));
  EXPECT_FALSE(std::filesystem::exists(kStaged));
}

// Before its thirteenth pass, an opener has paused for 2 s altogether.
constexpr size_t kMostPasses = 12;
constexpr std::chrono::milliseconds kTime(1900);

TEST_F(StartLock, ADaemonThatDiesAtOnceIsStartedAgainMoreAndMoreSlowly) {
  Shell(R"(install /bin/false "$daemon"; sign "$daemon" "$daemon")");
  Process opener(OpenerLaunch(FileWith("")));
  std::this_thread::sleep_for(kTime);
  const size_t starts = Count(opener.Output(), "construction complete");
  EXPECT_TRUE(opener.Running());
  EXPECT_LT(3U, starts);
  EXPECT_GE(kMostPasses, starts);
}

TEST_F(StartLock, ADaemonThatGreetsNobodyIsAskedMoreAndMoreSlowly) {
  const Fd listener = ListenAt(kSocketPath);
  Process opener(OpenerLaunch(FileWith("")));
  const auto end = std::chrono::steady_clock::now() + kTime;
  size_t passes = 0;
  for (pollfd ready = {listener.Get(), POLLIN, 0}; std::chrono::steady_clock::now() < end;) {
    if (poll(&ready, 1, 10) == 1) passes += Accept(listener) ? 1 : 0;
  }
  EXPECT_LT(9U, passes);
  EXPECT_GE(kMostPasses, passes);
}

}  // namespace
