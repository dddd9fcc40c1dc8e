// service_test.cpp -- the reference service: no peer harms it or the others, and the user who
// happened to start it has no power over it.

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "tests/support/peer.h"
#include "tests/support/product.h"

namespace {

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
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith(token))));
    EXPECT_TRUE(ServiceRead(token));
  }
  long OpenFiles() const {
    const std::filesystem::directory_iterator files("/proc/" + std::to_string(service_) + "/fd");
    return std::distance(begin(files), end(files));
  }
};

// How one message of the service decides is tested in wire_test.cpp.
void (*const kBadPeers[])(const Fd &) = {
    [](const Fd &) {},  // leaves at once
    [](const Fd &sock) { SendFds(sock, std::string(5000, 'x'), -1, 0); },
    [](const Fd &sock) {
      const char other = static_cast<char>(Receive(sock).byte + 1);
      SendFds(sock, {&other, 1}, FileWith("other byte").Get(), 1);
      EXPECT_EQ('0', Receive(sock).byte);
    },
    [](const Fd &sock) {
      const char greeting = Receive(sock).byte;
      SendFds(sock, {&greeting, 1}, Pipe().write.Get(), 1);  // cannot be read
      EXPECT_EQ('0', Receive(sock).byte);
    },
    [](const Fd &) {
      EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(Fd(open("/etc", O_RDONLY | O_CLOEXEC)))));
    },
};

// All the while a connection says nothing, and a delivered pipe has nothing to read.  Its open file
// is shared with the opener's caller, so its flags are not the service's to change.
TEST_F(ServiceTest, NoPeerHarmsTheOthers) {
  const long filesBefore = OpenFiles();
  Pipe pipe;
  const int flags = fcntl(pipe.read.Get(), F_GETFL);
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(Fd(dup(pipe.read.Get())))));
  for (size_t i = 0; i < std::size(kBadPeers); i++) {
    const Fd silent = ConnectTo(kSocketPath);
    kBadPeers[i](ConnectTo(kSocketPath));
    ExpectService("after peer " + std::to_string(i));
  }
  EXPECT_EQ(flags, fcntl(pipe.read.Get(), F_GETFL));
  EXPECT_EQ(4, write(pipe.write.Get(), "last", 4));
  pipe.write.Reset();
  EXPECT_TRUE(ServiceRead("last"));
  EXPECT_TRUE(Eventually([&] { return OpenFiles() == filesBefore; })) << OpenFiles();
  EXPECT_EQ(std::vector<pid_t>{service_}, Services());
}

TEST_F(ServiceTest, WithoutDescriptorsItWaitsForSome) {
  rlimit before = {};
  ASSERT_EQ(0, prlimit(service_, RLIMIT_NOFILE, nullptr, &before));
  const rlimit none = {3, before.rlim_max};
  ASSERT_EQ(0, prlimit(service_, RLIMIT_NOFILE, &none, nullptr));
  const Fd waiting = ConnectTo(kSocketPath);
  EXPECT_TRUE(ServiceLogged("accept errno " + std::to_string(EMFILE)));
  ASSERT_EQ(0, prlimit(service_, RLIMIT_NOFILE, &before, nullptr));
  EXPECT_NE('\0', Receive(waiting).byte);
  EXPECT_EQ(1U, Count(ServiceLog(), "accept errno"));
}

TEST_F(ServiceTest, RefusesWhatIsNoListeningSocket) {
  for (const char *const argument : {"x", "2", "1000000", "9"}) {
    Launch launch;
    launch.argv = {kBundleDaemon, argument, "9"};
    launch.adjust = [] { dup2(STDOUT_FILENO, 9); };
    EXPECT_EQ(2, Process(launch).Wait()) << argument;
  }
}

TEST_F(ServiceTest, IsOutOfTheUsersPowerAndStopsForRoot) {
  const auto end = [this] { _exit(kill(service_, SIGKILL) == -1 && errno == EPERM ? 0 : 1); };
  EXPECT_EQ(0, OutcomeOf(OpenerLaunch(Fd(), end)).status);
  const Fd silent = ConnectTo(kSocketPath);
  EXPECT_NE('\0', Receive(silent).byte);
  ASSERT_EQ(0, kill(service_, SIGTERM));
  EXPECT_TRUE(ServiceLogged("Stopped with 1 connections open.\n"));
  EXPECT_EQ('\0', Receive(silent).byte);
  EXPECT_TRUE(Eventually([] { return Services().empty(); }));
  ExpectService("the next");
  EXPECT_TRUE(ServiceRead("the first")) << "the log goes on";
}

}  // namespace
