// service_test.cpp -- the reference service: no peer harms it or the others, and the user who
// happened to start it has no power over it.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <vector>

#include "tests/support/fakeService.h"
#include "tests/support/product.h"

namespace {

namespace fs = std::filesystem;

// '\0' at the end of file.
char ReadByte(const Fd &sock) {
  char byte = '\0';
  return recv(sock.Get(), &byte, 1, 0) == 1 ? byte : '\0';
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
    EXPECT_TRUE(ServiceLogged("The opener that started this service has finished.\n"));
  }

  // An ordinary opener is served.
  static void ExpectService(const std::string &token) {
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith(token).Get())));
    EXPECT_TRUE(ServiceRead(token));
  }
  long OpenFiles() const {
    const fs::directory_iterator files("/proc/" + std::to_string(service_) + "/fd");
    return std::distance(begin(files), end(files));
  }
};

struct BadPeer {
  const char *name;
  void (*behave)(const Fd &sock);
};

// How one message of the service decides is tested in wire_test.cpp.
const BadPeer kBadPeers[] = {
    {"leaves at once", [](const Fd &) {}},
    {"has nothing to say",
     [](const Fd &sock) {
       ReadByte(sock);
       shutdown(sock.Get(), SHUT_WR);
       EXPECT_EQ('\0', ReadByte(sock));
     }},
    {"sends garbage before it is greeted",
     [](const Fd &sock) {
       const std::string garbage(5000, 'x');
       send(sock.Get(), garbage.data(), garbage.size(), MSG_NOSIGNAL);
     }},
    {"sends another byte than it got",
     [](const Fd &sock) {
       const auto other = static_cast<char>(ReadByte(sock) + 1);
       SendFds(sock.Get(), {&other, 1}, FileWith("other byte").Get(), 1);
       EXPECT_EQ('0', ReadByte(sock));
     }},
    {"sends what cannot be read",
     [](const Fd &sock) {
       const char greeting = ReadByte(sock);
       SendFds(sock.Get(), {&greeting, 1}, Pipe().write.Get(), 1);
       EXPECT_EQ('0', ReadByte(sock));
     }},
    {"delivers a folder",
     [](const Fd &) {
       const Fd folder(open("/etc", O_RDONLY | O_CLOEXEC));
       EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(folder.Get())));
     }},
};

// All the while a connection says nothing, and a delivered pipe has nothing to read.  Its open file
// is shared with the opener's caller, so its flags are not the service's to change.
TEST_F(ServiceTest, NoPeerHarmsTheOthers) {
  const long filesBefore = OpenFiles();
  Pipe pipe;
  const int flags = fcntl(pipe.read.Get(), F_GETFL);
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(pipe.read.Get())));
  for (const BadPeer &peer : kBadPeers) {
    SCOPED_TRACE(peer.name);
    const Fd silent = ConnectTo(kSocketPath);
    peer.behave(ConnectTo(kSocketPath));
    ExpectService(peer.name);
  }
  EXPECT_EQ(flags, fcntl(pipe.read.Get(), F_GETFL));
  EXPECT_EQ(4, write(pipe.write.Get(), "last", 4));
  pipe.write.Reset();
  EXPECT_TRUE(ServiceRead("last"));
  EXPECT_TRUE(Eventually([&] { return OpenFiles() == filesBefore; })) << OpenFiles();
  EXPECT_EQ(std::vector<pid_t>{service_}, Services());
}

TEST_F(ServiceTest, StopsOnSigtermAndLeavesItsPlaceToTheNext) {
  const Fd silent = ConnectTo(kSocketPath);
  ReadByte(silent);
  ASSERT_EQ(0, kill(service_, SIGTERM));
  EXPECT_TRUE(ServiceLogged("Stopped with 1 connections open.\n"));
  EXPECT_EQ('\0', ReadByte(silent));
  EXPECT_TRUE(Eventually([] { return Services().empty(); }));
  ExpectService("the next");
  EXPECT_TRUE(ServiceRead("the first")) << "the log goes on";
}

TEST_F(ServiceTest, TheUserWhoStartedItHasNoPowerOverIt) {
  Launch killer = OpenerLaunch();
  killer.adjust = [this] { _exit(kill(service_, SIGKILL) == -1 && errno == EPERM ? 0 : 1); };
  EXPECT_EQ(0, OutcomeOf(killer).status);

  Reset();
  const Fd file = FileWith("little");
  Launch starved = OpenerLaunch(file.Get());
  const auto openArgument = starved.adjust;
  starved.adjust = [&] {
    openArgument();
    // Only soft limits: the hosts differ in whether root may raise hard ones.  Enough to stage.
    rlimit files = {}, size = {};
    getrlimit(RLIMIT_NOFILE, &files);
    getrlimit(RLIMIT_FSIZE, &size);
    files.rlim_cur = 16;
    size.rlim_cur = 100'000'000;
    setrlimit(RLIMIT_NOFILE, &files);
    setrlimit(RLIMIT_FSIZE, &size);
  };
  EXPECT_EQ(0, OutcomeOf(starved).status);
  EXPECT_TRUE(ServiceRead("little"));
  rlimit size = {};
  const auto services = Services();
  ASSERT_EQ(1U, services.size());
  ASSERT_EQ(0, prlimit(services[0], RLIMIT_FSIZE, nullptr, &size));
  EXPECT_EQ(size.rlim_max, size.rlim_cur);
  std::vector<Fd> silent;
  for (int i = 0; i < 30; i++) {
    silent.push_back(ConnectTo(kSocketPath));
    EXPECT_NE('\0', ReadByte(silent.back()));
  }
}

}  // namespace
