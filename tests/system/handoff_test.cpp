// handoff_test.cpp -- one opener and one service, as installed: who starts whom, with what, and
// what arrives.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/fakeService.h"
#include "tests/support/product.h"
#include "tests/support/scratchDir.h"

namespace {

const Outcome kDelivered = {0, ""};
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

std::string Warned(const char *procedure, const char *call, int error) {
  return std::string("Warning: ") + procedure + ": " + call + " errno " + std::to_string(error) +
         ".\n";
}

TEST_F(Handoff, TheFirstOpenerStartsTheServiceAndTheNextOneUsesIt) {
  const std::string content = LongContent();
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith(content).Get())));
  ExpectRootOnly(kSocketPath, S_IFSOCK);
  ExpectRootOnly(kLockPath, S_IFREG);
  EXPECT_TRUE(ServiceRead(content));
  EXPECT_TRUE(Eventually([] {
    return ServiceLog().find("The opener that started this service has finished.\n") !=
           std::string::npos;
  }));

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

void OpenManyDescriptors() {
  const rlimit many = {4096, 4096};
  setrlimit(RLIMIT_NOFILE, &many);
  for (int fd = 20; fd < 4096; fd += 7) dup2(STDOUT_FILENO, fd);
  const rlimit few = {64, 4096};
  setrlimit(RLIMIT_NOFILE, &few);
}

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
    {"many descriptors", OpenManyDescriptors},
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
    InstallProgram("LUMEN_PROBE", kStagedDaemon);
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

TEST_F(Handoff, AServiceThatCannotBeStartedIsAFailure) {
  unlink(kStagedDaemon.c_str());
  const std::string error = std::to_string(ENOENT);
  EXPECT_EQ((Outcome{1, "Warning: Hostinfo_Daemonize: Child could not exec " + kStagedDaemon +
                            ", read 4, error " + error + ".\n"}),
            OutcomeOf(OpenerLaunch(FileWith("").Get())));
  InstallProgram("LUMEN_SERVICE", kStagedDaemon);
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("").Get())));
}

// ---- who listens ------------------------------------------------------------------------------

TEST_F(Handoff, ASocketFileThatNobodyListensOnIsReplaced) {
  ListenAt(kSocketPath).Reset();
  struct stat before = {}, after = {};
  ASSERT_EQ(0, stat(kSocketPath.c_str(), &before));
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("stale").Get())));
  EXPECT_TRUE(ServiceRead("stale"));
  ASSERT_EQ(0, stat(kSocketPath.c_str(), &after));
  EXPECT_FALSE(before.st_ino == after.st_ino && before.st_ctim.tv_sec == after.st_ctim.tv_sec &&
               before.st_ctim.tv_nsec == after.st_ctim.tv_nsec);
}

// A service that stops with openers in its queue closes them without a greeting.
TEST_F(Handoff, AnOpenerThatIsNotGreetedTriesAgain) {
  std::string arrived;
  FakeService service(kSocketPath, {[](int) {}, [](int) {},
                                    [&](int connection) {
                                      Greet(connection);
                                      const Received received = Receive(connection);
                                      char piece[100] = {};
                                      if (read(received.fd.Get(), piece, sizeof piece - 1) > 0) {
                                        arrived = piece;
                                      }
                                      Answer(connection, '1');
                                    }});
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("third time").Get())));
  EXPECT_EQ("third time", arrived);
  EXPECT_EQ(3U, service.Connections());
}

// Closes with a byte unread, which on Linux resets the connection.
void LeaveUnread(int connection) {
  Greet(connection);
  char ignored;
  recv(connection, &ignored, 1, MSG_PEEK);
}

struct Refusal {
  const char *name;
  FakeService::Step step;
};

const Refusal kRefusals[] = {
    {"another reply byte",
     [](int connection) { Greet(connection), Receive(connection), Answer(connection, '0'); }},
    {"the zero byte",
     [](int connection) { Greet(connection), Receive(connection), Answer(connection, '\0'); }},
    {"closed after the descriptor", [](int connection) { Greet(connection), Receive(connection); }},
    {"reset after the descriptor", LeaveUnread},
    {"closed after the greeting", [](int connection) { Greet(connection); }},
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

// The greeting comes back as it was, with the descriptor.
TEST_F(Handoff, EveryGreetingIsEchoed) {
  for (const char greeting : {'\0', '1', '\xff'}) {
    char echo = '?';
    FakeService service(kSocketPath, {[&](int connection) {
                          Greet(connection, greeting);
                          echo = Receive(connection).byte;
                          Answer(connection, '1');
                        }});
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("").Get())));
    EXPECT_EQ(greeting, echo);
  }
}

// ---- arguments --------------------------------------------------------------------------------

TEST_F(Handoff, TheArgumentNamesTheDescriptor) {
  const Fd file = FileWith("on standard input");
  Launch launch = OpenerLaunch(file.Get(), 0);
  for (const char *argument : {"0", "nonsense", "", " 0x7"}) {
    SCOPED_TRACE(argument);
    lseek(file.Get(), 0, SEEK_SET);
    launch.argv[1] = argument;
    unlink(kServiceLogPath.c_str());
    ProductTest::Reset();
    EXPECT_EQ(kDelivered, OutcomeOf(launch));
    EXPECT_TRUE(ServiceRead("on standard input"));
  }
}

TEST_F(Handoff, ADescriptorThatIsNotOpenIsAFailure) {
  Launch launch = OpenerLaunch();
  for (const char *argument : {"8", "-1", "99999"}) {
    launch.argv = {kOpenerPath, argument};
    EXPECT_EQ((Outcome{1, Warned("ServiceImplSendFd", "sendmsg", EBADF)}), OutcomeOf(launch))
        << argument;
  }
  EXPECT_EQ(1U, Services().size());
}

TEST_F(Handoff, TwoArgumentsAreRefusedBeforeAnythingHappens) {
  Launch launch = OpenerLaunch(FileWith("").Get());
  launch.argv.push_back("8");
  EXPECT_EQ((Outcome{1, "Warning: Invalid number of arguments.\n"}), OutcomeOf(launch));
  EXPECT_NE(0, access(kLockPath.c_str(), F_OK));
  EXPECT_NE(0, access(kSocketPath.c_str(), F_OK));
}

// ---- shell mode -------------------------------------------------------------------------------

// The pipes that a process has, as often as it has them.
std::vector<std::string> Pipes(pid_t pid) {
  std::vector<std::string> pipes;
  for (const auto &fd :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(fd.path(), gone);
    if (target.starts_with("pipe:")) pipes.push_back(target);
  }
  return pipes;
}

TEST_F(Handoff, InShellModeTheServiceSeesTheEndOnlyWhenTheOpenerDies) {
  Process first(OpenerLaunch());  // also starts the service
  EXPECT_TRUE(Eventually([] { return ServiceLog().find("#1: accepted") != std::string::npos; }));
  Process second(OpenerLaunch());
  EXPECT_TRUE(Eventually([] { return ServiceLog().find("#2: accepted") != std::string::npos; }));
  // The rendezvous is over long before the process.
  EXPECT_TRUE(Eventually([] {
    return ServiceLog().find("The opener that started this service has finished.") !=
           std::string::npos;
  }));
  // Whatever the service has seen up to this delivery's end is in the log.
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("between").Get())));
  EXPECT_TRUE(ServiceRead("between"));
  const std::string end = EndRecord("");
  EXPECT_EQ(std::string::npos, ServiceLog().find(end)) << ServiceLog();

  // Of the pipe that the service reads, the opener has one end, not two.
  const auto services = Services();
  ASSERT_EQ(1U, services.size());
  ptrdiff_t shared = 0;
  for (const std::string &pipe : Pipes(services[0]))
    shared += std::ranges::count(Pipes(first.Pid()), pipe);
  EXPECT_EQ(1, shared);
  EXPECT_TRUE(first.Running());
  first.Signal(SIGKILL);
  EXPECT_EQ(128 + SIGKILL, first.Wait());
  EXPECT_TRUE(Eventually([&] { return ServiceLog().find("#1" + end) != std::string::npos; }));
  EXPECT_EQ(std::string::npos, ServiceLog().find("#2" + end)) << ServiceLog();
  second.Signal(SIGTERM);
  EXPECT_EQ(128 + SIGTERM, second.Wait());
  EXPECT_TRUE(Eventually([&] { return ServiceLog().find("#2" + end) != std::string::npos; }));
}

}  // namespace
