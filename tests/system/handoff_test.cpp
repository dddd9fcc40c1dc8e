// handoff_test.cpp -- openers and a service, as installed: which one starts the service, and what it gets.

#include <sys/file.h>
#include <sys/socket.h>

#include <chrono>

#include "tests/support/peer.h"
#include "tests/support/trace.h"

namespace {

using Handoff = ProductTest;

// Each start is preceded by staging, and a pass leaves nothing open but the write end of the status pipe.
TEST_F(Handoff, ADaemonThatDiesAtOnceIsStagedAndStartedAgainAndAgain) {
  Shell(R"(echo '#!/bin/sh' >"$daemon"; sign "$daemon" "$daemon")");
  Process opener(OpenerLaunch(
      FileWith(""), [] { close_range(4, ~0U, 0); }, 3));
  EXPECT_TRUE(Eventually([&] { return Count(opener.Output(), "construction complete") > 8; }));
  EXPECT_TRUE(Eventually([&] { return FilesOf(opener.Pid()).size() == 5; }));
  EXPECT_TRUE(opener.Running());
}

// ---- the start lock -----------------------------------------------------------------------------

// A lock file, open and locked; empty if another process holds the lock.
Fd Locked(const std::string &path) {
  Fd file(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600));
  return flock(file.Get(), LOCK_EX | LOCK_NB) == 0 ? std::move(file) : Fd();
}

TEST_F(Handoff, AnOpenerThatFindsAnotherOneStartingLetsGoOfEverythingAndComesBack) {
  Fd other = Locked(kStartLockPath);
  ASSERT_TRUE(other);
  Process opener(OpenerLaunch(FileWith("late")));
  usleep(300'000);
  EXPECT_TRUE(opener.Running());
  EXPECT_TRUE(Eventually([] { return static_cast<bool>(Locked(kLockPath)); }));
  EXPECT_FALSE(fs::exists(kSocketPath));
  EXPECT_FALSE(fs::exists(kStaged));
  other.Reset();
  EXPECT_EQ(kDelivered, Finish(&opener));
  EXPECT_TRUE(ServiceRead("late"));
  EXPECT_TRUE(Locked(kStartLockPath)) << "the service has it";
  Shell(R"(stat -c '%F %a %u' "/var/run/$daemon.sock" | grep -x 'socket 600 0'
           stat -c '%F %a %u' "/var/run/$daemon.lock" | grep -x 'regular empty file 600 0')");
}

// Otherwise another opener could replace the staged files that the child is about to execute.
TEST_F(Handoff, WhenTheStarterIsKilledItsChildKeepsTheStartLockUntilItIsTheDaemon) {
  StoppedOpener first("chdir", "/");
  ASSERT_TRUE(first.AwaitStop());
  Shell(R"(opener=$(pgrep -o -x lumenClient-ope); kill -KILL "$opener"
           while kill -0 "$opener" 2>&-; do sleep 0.01; done)");
  EXPECT_FALSE(Locked(kStartLockPath));
  Process second(OpenerLaunch(FileWith("second")));
  EXPECT_EQ(128 + SIGKILL, first.ContinueToEnd().status);
  // To the daemon of the killed one.
  EXPECT_EQ(kDelivered, Finish(&second));
  EXPECT_EQ(0U, Count(second.Output(), "construction complete")) << second.Output();
  EXPECT_EQ(1U, Services().size());
  EXPECT_TRUE(Locked(kStartLockPath));
}

// ---- the exchange -------------------------------------------------------------------------------

// A service that stops closes the connections in its queue without a greeting; the openers try again after
// growing pauses.  A greeting is echoed, together with the open file itself.
TEST_F(Handoff, AnOpenerTriesAgainUntilItIsGreetedAndEchoesTheGreeting) {
  const Fd listener = ListenAt(kSocketPath);
  for (const auto &[greeting, passes] : {std::pair('\0', 2), {'1', 2}, {'\xff', 11}}) {
    Process opener(OpenerLaunch(FileWith("content")));
    const auto start = std::chrono::steady_clock::now();
    for (int pass = 0; pass < passes; pass++) Accept(listener);
    const Fd connection = Accept(listener);
    const std::chrono::milliseconds least((1 << (passes - 1)) - 1);
    EXPECT_LE(least, std::chrono::steady_clock::now() - start);
    Say(connection, greeting);
    const Received received = Receive(connection);
    Say(connection, '1');
    EXPECT_EQ(kDelivered, Finish(&opener));
    EXPECT_EQ(greeting, received.byte);
    EXPECT_EQ("content", ContentOf(received.fd));
  }
}

TEST_F(Handoff, AnyAnswerButOneIsARefusal) {
  const struct {
    bool takesDescriptor;  // if not, closing with it unread resets the connection on Linux
    std::string answer;
  } rows[] = {{true, "0"}, {true, std::string(1, '\0')}, {true, "g"}, {true, ""}, {false, ""}};
  const Fd listener = ListenAt(kSocketPath);
  for (const auto &row : rows) {
    for (const bool inShellMode : {false, true}) {
      Process opener(OpenerLaunch(inShellMode ? Fd() : FileWith("")));
      Fd connection = Accept(listener);
      Say(connection, 'g');
      char ignored;
      recv(connection.Get(), &ignored, 1, MSG_PEEK);
      if (row.takesDescriptor) Receive(connection);
      if (!row.answer.empty()) Say(connection, row.answer[0]);
      connection.Reset();
      // This is no failure of the opener, so it logs nothing.
      EXPECT_EQ((Outcome{1, ""}), Finish(&opener)) << row.takesDescriptor << row.answer;
    }
  }
}

// Text that is no number counts as 0, standard input.
TEST_F(Handoff, TheArgumentNamesTheDescriptor) {
  const Outcome notOpen = {
      1, "Warning: ServiceImplSendFd: sendmsg errno " + std::to_string(EBADF) + ".\n"};
  const Outcome wrongNumber = {1, "Warning: Invalid number of arguments.\n"};
  const struct {
    std::vector<std::string> arguments;
    Outcome outcome;
  } rows[] = {
      {{"8", "8"}, wrongNumber},  {{"0"}, kDelivered}, {{" 0x7"}, kDelivered}, {{""}, kDelivered},
      {{"nonsense"}, kDelivered}, {{"8"}, notOpen},    {{"-1"}, notOpen},      {{"99999"}, notOpen},
  };
  for (const auto &row : rows) {
    const std::string content = "for " + row.arguments[0];
    Launch launch = OpenerLaunch(
        FileWith(content), [] {}, STDIN_FILENO);
    launch.argv = {kOpenerPath};
    launch.argv.insert(launch.argv.end(), row.arguments.begin(), row.arguments.end());
    EXPECT_EQ(row.outcome, OutcomeOf(launch)) << row.arguments[0];
    EXPECT_EQ(row.outcome != wrongNumber, fs::exists(kLockPath));
    EXPECT_TRUE(row.outcome != kDelivered || ServiceRead(content));
  }
}

TEST_F(Handoff, InShellModeTheServiceSeesTheEndOnlyWhenTheOpenerDies) {
  // Also starts the service.
  Process first(OpenerLaunch(Fd(), [] { close_range(0, ~0U, 0); }));
  EXPECT_TRUE(ServiceLogged("#1: accepted"));
  Process second(OpenerLaunch());
  EXPECT_TRUE(ServiceLogged("#2: accepted"));
  // When the end of this delivery is in the log, so is everything that came before it.
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("between"))));
  EXPECT_TRUE(ServiceRead("between"));
  const std::string end = EndRecord("");
  EXPECT_EQ(0U, Count(ServiceLog(), end)) << ServiceLog();

  // It keeps the write end, and has closed the read end that it delivered.
  EXPECT_TRUE(Eventually([&] {
    const auto files = FilesOf(first.Pid());
    return std::ranges::count(files, "pipe", &decltype(files)::value_type::second) == 1;
  }));

  first.Signal(SIGKILL);
  EXPECT_EQ(128 + SIGKILL, first.Wait());
  EXPECT_TRUE(ServiceLogged("#1" + end));
  EXPECT_EQ(0U, Count(ServiceLog(), "#2" + end)) << ServiceLog();
  second.Signal(SIGTERM);
  EXPECT_EQ(128 + SIGTERM, second.Wait());
  EXPECT_TRUE(ServiceLogged("#2" + end));
}

}  // namespace
