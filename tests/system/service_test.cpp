// service_test.cpp -- the reference service: peers that misbehave, descriptors of every kind, and
// what the user who happened to start it can do to it.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/fakeService.h"
#include "tests/support/product.h"
#include "tests/support/scratchDir.h"

namespace {

namespace fs = std::filesystem;

const Outcome kDelivered = {0, ""};

Fd Connect() {
  Fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  kSocketPath.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(0, connect(sock.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
  return sock;
}

// '\0' at the end of file.
char ReadByte(int sock) {
  char byte = '\0';
  return recv(sock, &byte, 1, 0) == 1 ? byte : '\0';
}

// Sends `byte` with all of `fds` in one message.
void Send(int sock, char byte, const std::vector<int> &fds) {
  iovec payload = {&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &payload;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = CMSG_SPACE(fds.size() * sizeof(int));
  cmsghdr *const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
  memcpy(CMSG_DATA(header), fds.data(), fds.size() * sizeof(int));
  EXPECT_EQ(1, sendmsg(sock, &message, MSG_NOSIGNAL));
}

class ServiceTest : public ProductTest {
 protected:
  pid_t service_ = -1;

  void SetUp() override {
    ProductTest::SetUp();
    ExpectService("the first");
    const auto services = Services();
    ASSERT_EQ(1U, services.size());
    service_ = services[0];
    EXPECT_TRUE(Logged("The opener that started this service has finished.\n"));
  }

  // An ordinary opener is served.
  static void ExpectService(const std::string &token) {
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith(token).Get())));
    EXPECT_TRUE(ServiceRead(token));
  }
  static bool Logged(const std::string &text) {
    return Eventually([&] { return ServiceLog().find(text) != std::string::npos; });
  }
  void ExpectSameService() const { EXPECT_EQ(std::vector<pid_t>{service_}, Services()); }
  long OpenFiles() const {
    const fs::directory_iterator files("/proc/" + std::to_string(service_) + "/fd");
    return std::distance(begin(files), end(files));
  }
};

// ---- peers ------------------------------------------------------------------------------------

struct BadPeer {
  const char *name;
  const char *logged;
  void (*behave)(int sock);
};

const BadPeer kBadPeers[] = {
    {"leaves at once", "", [](int) {}},
    {"leaves after the greeting", "no descriptor came", [](int sock) { ReadByte(sock); }},
    {"has nothing to say", "no descriptor came",
     [](int sock) {
       shutdown(sock, SHUT_WR);
       ReadByte(sock);
       EXPECT_EQ('\0', ReadByte(sock));
     }},
    {"sends a byte alone", "no descriptor came",
     [](int sock) {
       const char greeting = ReadByte(sock);
       send(sock, &greeting, 1, 0);
       EXPECT_EQ('\0', ReadByte(sock));
     }},
    {"sends garbage before it is greeted", "",
     [](int sock) {
       const std::string garbage(5000, 'x');
       send(sock, garbage.data(), garbage.size(), MSG_NOSIGNAL);
     }},
    {"sends two descriptors", "no descriptor came",
     [](int sock) {
       const Fd file = FileWith("twice");
       Send(sock, ReadByte(sock), {file.Get(), file.Get()});
       EXPECT_EQ('\0', ReadByte(sock));
     }},
    {"sends another byte than it got", "refused: the greeting came back changed",
     [](int sock) {
       const Fd file = FileWith("other byte");
       Send(sock, static_cast<char>(ReadByte(sock) + 1), {file.Get()});
       EXPECT_EQ('0', ReadByte(sock));
     }},
    {"sends what cannot be read", "refused: the descriptor cannot be read",
     [](int sock) {
       const Pipe pipe;
       Send(sock, ReadByte(sock), {pipe.write.Get()});
       EXPECT_EQ('0', ReadByte(sock));
     }},
    {"leaves without an answer", "",
     [](int sock) { Send(sock, ReadByte(sock), {FileWith("unanswered").Get()}); }},
};

TEST_F(ServiceTest, NoPeerHarmsTheOthers) {
  const long filesBefore = OpenFiles();
  for (const BadPeer &peer : kBadPeers) {
    SCOPED_TRACE(peer.name);
    const size_t logBefore = ServiceLog().size();
    const Fd silent = Connect();
    peer.behave(Connect().Get());
    ExpectService(peer.name);
    EXPECT_NE(std::string::npos, ServiceLog().find(peer.logged, logBefore)) << ServiceLog();
  }
  EXPECT_TRUE(Eventually([&] { return OpenFiles() == filesBefore; })) << OpenFiles();
  ExpectSameService();
}

TEST_F(ServiceTest, GoesOnWhenItHasRunOutOfDescriptors) {
  const rlimit few = {static_cast<rlim_t>(OpenFiles()) + 3, 2048};
  ASSERT_EQ(0, prlimit(service_, RLIMIT_NOFILE, &few, nullptr));
  std::vector<Fd> silent;
  for (int i = 0; i < 10; i++) silent.push_back(Connect());
  const size_t connections = silent.size();
  const std::string warning = "Warning: accept errno " + std::to_string(EMFILE) + ".\n";
  EXPECT_TRUE(Logged(warning));
  const Fd file = FileWith("patient");
  Process opener(OpenerLaunch(file.Get()));
  silent.clear();
  EXPECT_EQ(kDelivered, Finish(&opener));
  EXPECT_TRUE(ServiceRead("patient"));
  ExpectSameService();
  // Said once for each time of need, however often it was tried.
  size_t warnings = 0;
  const std::string log = ServiceLog();
  for (size_t at = 0; (at = log.find(warning, at)) != log.npos; at++) warnings++;
  EXPECT_LE(warnings, connections) << log;
}

// ---- descriptors ------------------------------------------------------------------------------

struct Kind {
  const char *name;
  const char *content;
  int error;
  std::function<Fd()> make;
};

const Kind kKinds[] = {
    {"a folder", "", EISDIR, [] { return Fd(open("/etc", O_RDONLY | O_CLOEXEC)); }},
    {"nothing", "", 0, [] { return Fd(open("/dev/null", O_RDWR | O_CLOEXEC)); }},
    {"a file, from its offset", "the rest", 0,
     [] {
       Fd file = FileWith("skipped the rest");
       lseek(file.Get(), 8, SEEK_SET);
       return file;
     }},
    {"a socket whose peer is gone", "", 0,
     [] {
       int ends[2];
       EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
       close(ends[1]);
       return Fd(ends[0]);
     }},
    {"a non-blocking pipe with its end in sight", "bytes", 0,
     [] {
       Pipe pipe;
       EXPECT_EQ(5, write(pipe.write.Get(), "bytes", 5));
       fcntl(pipe.read.Get(), F_SETFL, O_NONBLOCK);
       return std::move(pipe.read);
     }},
};

TEST_F(ServiceTest, ReadsEveryKindOfDescriptorToItsEnd) {
  for (const Kind &kind : kKinds) {
    SCOPED_TRACE(kind.name);
    const size_t logBefore = ServiceLog().size();
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(kind.make().Get())));
    const std::string failure = "read errno " + std::to_string(kind.error) + ".\n";
    const auto logged = [&](const std::string &text) {
      return ServiceLog().find(text, logBefore) != std::string::npos;
    };
    EXPECT_TRUE(Eventually([&] { return logged(EndRecord(kind.content)); })) << ServiceLog();
    EXPECT_EQ(kind.error != 0, logged(failure)) << ServiceLog();
  }
}

// The open file is shared with the opener's caller.
TEST_F(ServiceTest, LeavesTheFlagsOfADescriptorAlone) {
  Pipe pipe;
  const int flags = fcntl(pipe.read.Get(), F_GETFL);
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(pipe.read.Get())));
  EXPECT_EQ(3, write(pipe.write.Get(), "abc", 3));
  ExpectService("meanwhile");
  EXPECT_EQ(flags, fcntl(pipe.read.Get(), F_GETFL));
  pipe.write.Reset();
  EXPECT_TRUE(ServiceRead("abc"));
}

// Somebody else reads the same pipe, so that what poll promised is gone when the service reads; to
// make sure of that, strace holds each of its reads back for a moment.
TEST_F(ServiceTest, IsNotHeldUpByAnotherReader) {
  Pipe pipe;
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(pipe.read.Get())));
  Launch launch;
  launch.argv = {"/usr/bin/strace",
                 "-q",
                 "-p",
                 std::to_string(service_),
                 "-o",
                 "/run/trace",
                 "-e",
                 "trace=read",
                 "-e",
                 "inject=read:delay_enter=200ms"};
  Process strace(launch);
  const std::string status = "/proc/" + std::to_string(service_) + "/status";
  EXPECT_TRUE(Eventually([&] {
    return ReadFile(status).find("TracerPid:\t" + std::to_string(strace.Pid())) !=
           std::string::npos;
  }));
  EXPECT_EQ(1, write(pipe.write.Get(), "x", 1));
  EXPECT_TRUE(Eventually([] { return ReadFile("/run/trace").find("read(") != std::string::npos; }));
  char byte;
  EXPECT_EQ(1, read(pipe.read.Get(), &byte, 1));
  ExpectService("alive");
  ExpectSameService();
}

// ---- its life ---------------------------------------------------------------------------------

TEST_F(ServiceTest, StopsOnSigtermAndLeavesItsPlaceToTheNext) {
  const Fd silent = Connect();
  ReadByte(silent.Get());
  ASSERT_EQ(0, kill(service_, SIGTERM));
  EXPECT_TRUE(Logged("Stopped with 1 connections open.\n"));
  EXPECT_EQ('\0', ReadByte(silent.Get()));
  EXPECT_TRUE(Eventually([] { return Services().empty(); }));
  ExpectService("the next");
  // The log is one.
  EXPECT_NE(std::string::npos, ServiceLog().find(EndRecord("the first")));
}

TEST_F(ServiceTest, TheUserWhoStartedItHasNoPowerOverIt) {
  Launch killer = OpenerLaunch();
  killer.adjust = [this] { _exit(kill(service_, SIGKILL) == -1 && errno == EPERM ? 0 : 1); };
  EXPECT_EQ(0, OutcomeOf(killer).status);

  Reset();
  const Fd file = FileWith("little");
  Launch starved = OpenerLaunch(file.Get());
  const auto openArgument = starved.adjust;
  starved.env.push_back("TZ=:/etc/zephrin/own");
  starved.adjust = [&] {
    openArgument();
    // Only soft limits: the hosts differ in whether root may raise hard ones.
    rlimit files = {}, size = {};
    getrlimit(RLIMIT_NOFILE, &files);
    getrlimit(RLIMIT_FSIZE, &size);
    files.rlim_cur = 16;
    size.rlim_cur = 0;
    signal(SIGXFSZ, SIG_IGN);  // the output of the opener is a file, too
    setrlimit(RLIMIT_NOFILE, &files);
    setrlimit(RLIMIT_FSIZE, &size);
  };
  EXPECT_EQ(0, OutcomeOf(starved).status);
  EXPECT_TRUE(ServiceRead("little"));
  std::vector<Fd> silent;
  for (int i = 0; i < 30; i++) {
    silent.push_back(Connect());
    EXPECT_NE('\0', ReadByte(silent.back().Get()));
  }
}

// ---- its arguments ----------------------------------------------------------------------------

struct Usage {
  std::vector<std::string> arguments;
  const char *message;
};

const Usage kUsages[] = {
    {{}, "two or three arguments are needed\n"},
    {{"socket", "4"}, "not a number: socket\n"},
    {{"99999999999", "4"}, "not a number: 99999999999\n"},
    {{"3", "-1"}, "no such descriptor: -1\n"},
    {{"4", "3"}, "not a listening socket: 4\n"},
    {{"3", "3"}, "the same descriptor twice: 3\n"},
};

TEST_F(ServiceTest, WrongArgumentsAreExplained) {
  const Fd listener = ListenAt("/run/other.sock");
  const Pipe pipe;
  for (const Usage &usage : kUsages) {
    Launch launch;
    launch.argv = {kBundleDaemon};
    launch.argv.insert(launch.argv.end(), usage.arguments.begin(), usage.arguments.end());
    launch.adjust = [&] {
      const Fd first(fcntl(listener.Get(), F_DUPFD, 100));
      const Fd second(fcntl(pipe.read.Get(), F_DUPFD, 100));
      dup2(first.Get(), 3);
      dup2(second.Get(), 4);
    };
    const Outcome outcome = OutcomeOf(launch);
    EXPECT_EQ(2, outcome.status);
    EXPECT_TRUE(outcome.records.starts_with(
        "lumen-reference-service: " + std::string(usage.message) + "usage: "))
        << outcome;
  }
}

}  // namespace
