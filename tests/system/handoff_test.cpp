// handoff_test.cpp -- one opener and one service, as installed: who starts whom, with what, and
// what arrives.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/fakeService.h"
#include "tests/support/product.h"
#include "tests/support/scratchDir.h"

namespace {

namespace fs = std::filesystem;

const Outcome kRefused = {1, ""};  // not the opener's failure, so it has nothing to log

using Handoff = ProductTest;

// More than a pipe holds, and no two pieces alike.
std::string LongContent() {
  std::string content;
  for (int i = 0; content.size() < 300'000; i++) content += std::to_string(i) + '\0';
  return content;
}

void ExpectRootOnly(const std::string &path, mode_t type) {
  struct stat info = {};
  EXPECT_EQ(0, lstat(path.c_str(), &info)) << path;
  EXPECT_EQ(type | 0600, info.st_mode) << path;
  EXPECT_EQ(0U, info.st_uid) << path;
}

TEST_F(Handoff, TheFirstOpenerStartsTheServiceAndTheNextOneUsesIt) {
  const std::string content = LongContent();
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith(content).Get())));
  ExpectRootOnly(kSocketPath, S_IFSOCK);
  ExpectRootOnly(kLockPath, S_IFREG);
  EXPECT_TRUE(ServiceRead(content));
  EXPECT_TRUE(ServiceLogged("The opener that started this service has finished.\n"));

  const auto services = Services();
  ASSERT_EQ(1U, services.size());
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("second").Get())));
  EXPECT_TRUE(ServiceRead("second"));
  EXPECT_EQ(services, Services());
}

// The service gets the very open file, not a copy: both ends of a pipe are held by two processes
// that know nothing of each other.
TEST_F(Handoff, WhatIsWrittenAfterTheHandOffArrivesToo) {
  Pipe pipe;
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(pipe.read.Get())));
  pipe.read.Reset();
  const std::string content = LongContent();
  std::ofstream("/proc/self/fd/" + std::to_string(pipe.write.Get())) << content;
  pipe.write.Reset();
  EXPECT_TRUE(ServiceRead(content));
}

// ---- what the service is started with ---------------------------------------------------------

struct CallerState {
  const char *name;
  void (*make)();
};

void CloseStandardDescriptors() {
  for (int fd = 0; fd <= 2; fd++) close(fd);
}

void SpoilProcess() {
  umask(077);
  if (chdir("/tmp") != 0) _exit(126);
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, nullptr);
  for (int number = 1; number < NSIG; number++) signal(number, SIG_IGN);
}

constexpr CallerState kCallerStates[] = {
    {"ordinary", [] {}},
    {"standard descriptors closed", CloseStandardDescriptors},
    {"signals blocked and ignored, umask 077", SpoilProcess},
};

// The report of probeDaemon.cpp for a service whose descriptors are `sock` and `status`.
std::string ExpectedReport(const std::string &sock, const std::string &status) {
  std::ostringstream text;
  text << "argument " << kStagedDaemon << "\nargument " << sock << "\nargument " << status
       << "\ndirectory /\nUid " << kUser << "\t0\t0\t0\nUmask 0022\n"
       << "SigBlk 0000000000000000\nSigIgn 0000000000000000\nterminal none\n"
       << "fd 0 /dev/null\nfd 1 /dev/null\nfd 2 /dev/null\n"
       << "fd " << sock << " socket\nfd " << status << " pipe\nenv " << OpenerLaunch().env[0]
       << "\n";
  return text.str();
}

TEST_F(Handoff, TheServiceInheritsNothingOfItsCaller) {
  for (const CallerState &state : kCallerStates) {
    SCOPED_TRACE(state.name);
    Reset();
    InstallDaemon("LUMEN_PROBE");
    const Fd file = FileWith(state.name);
    Launch launch = OpenerLaunch(file.Get());
    const auto openArgument = launch.adjust;
    launch.adjust = [&] {
      openArgument();
      state.make();
    };
    EXPECT_EQ(0, OutcomeOf(launch).status);
    EXPECT_TRUE(ServiceRead(state.name));

    const auto services = Services();
    ASSERT_EQ(1U, services.size());
    // Neither the opener's session, which is the test's, nor the leader of its own.
    EXPECT_NE(getsid(0), getsid(services[0]));
    EXPECT_NE(services[0], getsid(services[0]));
    const std::string report = ReadFile(kProbeReport);
    std::string sock, status;
    std::istringstream(report.substr(report.find("argument ", 10))) >> sock >> sock >> status >>
        status;
    EXPECT_EQ(ExpectedReport(sock, status), report);
  }
}

// ---- who listens ------------------------------------------------------------------------------

TEST_F(Handoff, ASocketFileThatNobodyListensOnIsReplaced) {
  ListenAt(kSocketPath).Reset();
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("stale").Get())));
  EXPECT_TRUE(ServiceRead("stale"));
}

// A service that stops with openers in its queue closes them without a greeting.  The greeting
// comes back as it was, with the descriptor.
TEST_F(Handoff, WhoIsNotGreetedTriesAgainAndWhoIsEchoesTheByte) {
  for (const char greeting : {'\0', '1', '\xff'}) {
    char echo = '?';
    std::string arrived(5, '?');
    FakeService service(kSocketPath, {[](int) {}, [](int) {},
                                      [&](int connection) {
                                        Say(connection, greeting);
                                        const Received received = Receive(connection);
                                        echo = received.byte;
                                        (void)!read(received.fd.Get(), arrived.data(), 5);
                                        Say(connection, '1');
                                      }});
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("third").Get())));
    EXPECT_EQ(greeting, echo);
    EXPECT_EQ("third", arrived);
    EXPECT_EQ(3U, service.Connections());
  }
}

struct Refusal {
  const char *name;
  FakeService::Step step;
};

// The answer after the greeting and the delivery.
FakeService::Step Answering(char byte) {
  return
      [byte](int connection) { Say(connection, 'g'), Receive(connection), Say(connection, byte); };
}

const Refusal kRefusals[] = {
    {"another reply byte", Answering('0')},
    {"the zero byte", Answering('\0')},
    {"the greeting again", Answering('g')},
    {"closed after the descriptor",
     [](int connection) { Say(connection, 'g'), Receive(connection); }},
    // With a byte unread, which on Linux resets the connection.
    {"reset after the descriptor",
     [](int connection) {
       Say(connection, 'g');
       char ignored;
       recv(connection, &ignored, 1, MSG_PEEK);
     }},
    {"closed after the greeting", [](int connection) { Say(connection, 'g'); }},
};

TEST_F(Handoff, AnyAnswerButOneIsARefusal) {
  for (const Refusal &refusal : kRefusals) {
    SCOPED_TRACE(refusal.name);
    FakeService service(kSocketPath, {refusal.step});
    EXPECT_EQ(kRefused, OutcomeOf(OpenerLaunch(FileWith("").Get())));
    Launch shell = OpenerLaunch();  // which a refusal ends, too
    EXPECT_EQ(kRefused, OutcomeOf(shell));
    EXPECT_EQ(2U, service.Connections());
  }
}

// ---- arguments --------------------------------------------------------------------------------

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
    const Fd file = FileWith("on standard input");
    Launch launch = OpenerLaunch(file.Get(), 0);
    launch.argv = {kOpenerPath};
    launch.argv.insert(launch.argv.end(), row.arguments.begin(), row.arguments.end());
    EXPECT_EQ(row.outcome, OutcomeOf(launch)) << row.arguments[0];
    EXPECT_EQ(row.outcome != wrongNumber, fs::exists(kLockPath)) << "too early or too late";
    if (row.outcome == kDelivered) {
      EXPECT_TRUE(ServiceRead("on standard input"));
    }
    Reset();
  }
}

// ---- shell mode -------------------------------------------------------------------------------

TEST_F(Handoff, InShellModeTheServiceSeesTheEndOnlyWhenTheOpenerDies) {
  Process first(OpenerLaunch());  // also starts the service
  EXPECT_TRUE(ServiceLogged("#1: accepted"));
  Process second(OpenerLaunch());
  EXPECT_TRUE(ServiceLogged("#2: accepted"));
  // The rendezvous is over long before the process.
  EXPECT_TRUE(ServiceLogged("The opener that started this service has finished."));
  // Whatever the service has seen up to this delivery's end is in the log.
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("between").Get())));
  EXPECT_TRUE(ServiceRead("between"));
  const std::string end = EndRecord("");
  EXPECT_EQ(0U, Count(ServiceLog(), end)) << ServiceLog();

  first.Signal(SIGKILL);
  EXPECT_EQ(128 + SIGKILL, first.Wait());
  EXPECT_TRUE(ServiceLogged("#1" + end));
  EXPECT_EQ(0U, Count(ServiceLog(), "#2" + end)) << ServiceLog();
  second.Signal(SIGTERM);
  EXPECT_EQ(128 + SIGTERM, second.Wait());
  EXPECT_TRUE(ServiceLogged("#2" + end));
}

}  // namespace
