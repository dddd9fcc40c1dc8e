// service_test.cpp -- the reference service: no peer harms it or the others, and the user whose opener
// started it has no power over it.

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <chrono>
#include <ctime>
#include <deque>

#include "platform/scheduling.h"
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
    EXPECT_EQ(0, ServiceLog().find("Started: PID " + std::to_string(service_)));
  }

  // An ordinary opener must be served; returns how long that took, in milliseconds.
  static long ExpectService(const std::string &token, uid_t user = kUser) {
    const auto start = std::chrono::steady_clock::now();
    Launch launch = OpenerLaunch(FileWith(token));
    launch.user = user;
    EXPECT_EQ(kDelivered, OutcomeOf(launch));
    const auto end = std::chrono::steady_clock::now();
    EXPECT_TRUE(ServiceRead(token));
    return std::chrono::duration_cast<std::chrono::milliseconds>(end - start).count();
  }
  // Makes room for only one connection in the service's queue.
  void ShortenQueue() const {
    int socket = -1;
    const std::string log = ServiceLog();
    sscanf(log.c_str() + log.find("socket "), "socket %d", &socket);
    const Fd service(static_cast<int>(syscall(SYS_pidfd_open, service_, 0)));
    const Fd same(static_cast<int>(syscall(SYS_pidfd_getfd, service.Get(), socket, 0)));
    ASSERT_EQ(0, listen(same.Get(), 0));
  }
};

// opener_test.cpp tests messages with no or several descriptors.
void (*const kBadPeers[])(const Fd &) = {
    [](const Fd &) {},                      // closes at once
    [](const Fd &sock) { Receive(sock); },  // closes after the greeting
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

// Meanwhile another connection stays silent, and a delivered pipe stays empty.  Its open file is shared
// with the opener's caller, so the service must not change its flags.
TEST_F(ServiceTest, NoPeerHarmsTheOthers) {
  const auto filesBefore = FilesOf(service_).size();
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
  EXPECT_TRUE(Eventually([&] { return FilesOf(service_).size() == filesBefore; }));
  EXPECT_EQ(std::vector<pid_t>{service_}, Services());
}

// One byte makes all deliveries readable, and the first one takes it.
TEST_F(ServiceTest, APipeDeliveredManyTimesDelaysNobody) {
  Pipe pipe;
  for (int i = 0; i < 200; i++) {
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(Fd(dup(pipe.read.Get())))));
  }
  long quickest = Process::kTimeoutMs;
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(1, write(pipe.write.Get(), "x", 1));
    quickest = std::min(quickest, ExpectService("meanwhile " + std::to_string(i)));
  }
  EXPECT_LT(quickest, 200);
}

TEST_F(ServiceTest, OneUserCannotShutOutAnother) {
  const size_t kOpeners = Rounds() > 1 ? 1000 : 600;
  constexpr size_t kShare = 512;
  const rlimit enough = {2 * kOpeners, 2 * kOpeners};
  if (setrlimit(RLIMIT_NOFILE, &enough) != 0) SKIP_FOR_WANT_OF("descriptors");
  std::deque<Process> shells;
  for (size_t i = 0; i < kOpeners; i++) shells.emplace_back(OpenerLaunch());
  const auto running = [&] {
    return static_cast<size_t>(std::ranges::count_if(shells, &Process::Running));
  };
  EXPECT_TRUE(Eventually([&] { return running() == kShare; })) << running();
  const std::string refusal = "user " + std::to_string(kUser) + " refused: the user's share";
  EXPECT_EQ(kOpeners - kShare, Count(ServiceLog(), refusal));
  EXPECT_EQ(1, OutcomeOf(OpenerLaunch()).status);
  EXPECT_LT(ExpectService("the other user", kUser + 1), 1000);

  for (const Process &shell : shells) {
    if (shell.Running()) shell.Signal(SIGKILL);
  }
  EXPECT_TRUE(Eventually([&] { return Count(ServiceLog(), EndRecord("")) == kShare; }));
  ExpectService("the first user");
}

// With more silent peers than slots, the queue would stay full if the service stopped accepting, and an
// opener on macOS would start a second service.
TEST_F(ServiceTest, SilentPeersGiveWay) {
  InstallOpener("refusedOpener");
  ShortenQueue();
  std::deque<Fd> silent;
  for (int i = 0; i < 513; i++) silent.push_back(ConnectTo(kSocketPath));
  EXPECT_LT(ExpectService("in a full house"), 1000);
  EXPECT_EQ(std::vector<pid_t>{service_}, Services());
  for (const Fd &peer : silent) EXPECT_NE('\0', Receive(peer).byte);
  EXPECT_EQ('\0', Receive(silent.front()).byte);
  if (Rounds() == 1) return;
  EXPECT_EQ('\0', Receive(silent.back()).byte);
}

// The first one comes from a silent peer.
TEST_F(ServiceTest, WithoutDescriptorsItWaitsForSome) {
  const Fd silent = ConnectTo(kSocketPath);
  EXPECT_NE('\0', Receive(silent).byte);
  rlimit before = {};
  ASSERT_EQ(0, prlimit(service_, RLIMIT_NOFILE, nullptr, &before));
  const rlimit none = {3, before.rlim_max};
  ASSERT_EQ(0, prlimit(service_, RLIMIT_NOFILE, &none, nullptr));
  const Fd waiting = ConnectTo(kSocketPath);
  EXPECT_EQ('\0', Receive(silent).byte);
  EXPECT_TRUE(ServiceLogged("accept errno " + std::to_string(EMFILE)));
  ASSERT_EQ(0, prlimit(service_, RLIMIT_NOFILE, &before, nullptr));
  EXPECT_NE('\0', Receive(waiting).byte);
  EXPECT_EQ(1U, Count(ServiceLog(), "accept errno"));
}

TEST_F(ServiceTest, RefusesWhatIsNoListeningSocket) {
  for (const std::string refusal : {"not a number: x", "not a number: 4x", "no such descriptor: 2",
                                    "no such descriptor: 1000000", "not a listening socket: 9"}) {
    Process service({.argv = {kBundleDaemon, refusal.substr(refusal.rfind(' ') + 1), "9"},
                     .adjust = [] { dup2(STDOUT_FILENO, 9); }});
    EXPECT_EQ(2, service.Wait());
    EXPECT_EQ(0, service.Output().find("lumen-reference-service: " + refusal + "\nusage: "));
  }
}

// ---- what it inherits from the user whose opener started it --------------------------------------

// As an ordinary user can do it, and mostly not undo it.  Soft limits only: some hosts do not let root
// raise hard ones.  The limit of data is high because a sanitizer maps terabytes.
constexpr char kWorsen[] = R"sh(
  echo 900 >/proc/self/oom_score_adj
  echo 1000000000 >/proc/self/timerslack_ns
  exec chrt -b 0 nice -n 5 ionice -c 2 -n 3 taskset -c "$(taskset -cp $$ | grep -o '[0-9]*$')" \
    prlimit --core=1048576: --cpu=3600: --data=35184372088832: --fsize=1073741824: --nofile=64: \
    --sigpending=1: --stack=32768: "$@"
)sh";

constexpr char kScheduling[] =
    "ps -o class=,ni= -p $0; ionice -p $0; cd /proc/$0; grep Cpus_allowed_list status; "
    "cat timerslack_ns oom_score_adj";
// Soft limits that are neither what the service sets nor as high as they can be.
constexpr char kOddLimits[] = R"(
  prlimit -p $0 --core --cpu --data --fsize --nofile --sigpending --stack --raw --noheadings \
    -o RESOURCE,SOFT,HARD |
    awk 'BEGIN { set["CORE"] = 0; set["NOFILE"] = 2048; set["STACK"] = 8388608 }
         $2 != $3 && $2 != set[$1]')";

// What shell commands about a process, $0, print.
std::string Ask(const char *commands, pid_t pid) {
  return OutputOf({"/bin/sh", "-ec", commands, std::to_string(pid)});
}

TEST_F(ServiceTest, TakesAfterTheSystemAndNotAfterItsStarter) {
  // The root of a user namespace may not, so LUMEN_REQUIRE_SANDBOX does not require it.
  if (setpriority(PRIO_PROCESS, 0, -1) != 0) GTEST_SKIP() << "not to be had: raising a priority";
  Platform_ResetScheduling();
  StopServices();
  unlink(kServiceLogPath.c_str());
  Launch launch = OpenerLaunch(FileWith("from below"));
  launch.env.insert(launch.env.end(), {"PATH=/usr/bin:/bin", "TZ=ODD-13:45"});
  launch.argv = {"/bin/sh", "-ec", kWorsen, "-", kOpenerPath, "7"};
  EXPECT_EQ(kDelivered, OutcomeOf(launch));
  const auto services = Services();
  ASSERT_EQ(1U, services.size());
  EXPECT_EQ(Ask(kScheduling, getpid()), Ask(kScheduling, services[0]));
  EXPECT_EQ("", Ask(kOddLimits, services[0]));
  // If root cannot raise the limit, the service must work with little.
  const rlimit little = {32 << 10, 32 << 10};
  ASSERT_EQ(0, prlimit(services[0], RLIMIT_STACK, &little, nullptr));
  ExpectService(std::string(64 << 10, 'x'));
  // In the system's time zone.
  Shell(R"sh(unset TZ; age=$(($(date +%s) - $(date -d "$(head -c 19 "/var/run/$daemon.log")" +%s)))
           [ "${age#-}" -lt 3600 ])sh");
}

TEST_F(ServiceTest, IsOutOfTheUsersPowerAndStopsForRoot) {
  ShellAsUser("! kill -KILL " + std::to_string(service_));
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
