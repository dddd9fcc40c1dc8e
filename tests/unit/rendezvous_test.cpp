// rendezvous_test.cpp -- the loop of passes: what each one leaves open, and when the hook runs.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "fd.h"
#include "opener/serviceImpl.h"
#include "platform/unixSocket.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"

namespace {

size_t OpenDescriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/dev/fd")) count++;
  return count;
}

constexpr uid_t kCaller = 54321;
int hookCalls;
bool hookWasLowered;

bool ThirdCallFails() {
  hookWasLowered = geteuid() == kCaller;
  return ++hookCalls < 3;
}

int Meet(const ScratchDir &dir, const char *daemonPath, const char *fd) {
  char program[] = "opener";
  char *argv[] = {program, const_cast<char *>(fd), nullptr};
  return ServiceImpl_Opener(2, argv, 2, dir.Path("lock").c_str(), dir.Path("sock").c_str(),
                            daemonPath);
}

// A listener in a process of its own that closes its one connection without a greeting.
void StartMuteListener(const std::string &path) {
  sockaddr_un address;
  Platform_InitUnixAddress(&address, path.size());
  strcpy(address.sun_path, path.c_str());
  const Fd listener(socket(AF_UNIX, SOCK_STREAM, 0));
  if (bind(listener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
      listen(listener.Get(), 0) != 0) {
    _exit(4);
  }
  if (fork() == 0) {
    close(accept(listener.Get(), nullptr, nullptr));
    _exit(0);
  }
}

// /bin/true is a service that dies before it greets anybody: each start ends in another pass.
TEST(Rendezvous, AsksTheHookAsTheCallerBeforeEachStartAndLeavesNothingOpen) {
  if (geteuid() != 0) GTEST_SKIP() << "only root has an identity to lower";
  const ScratchDir dir;
  const ChildResult result = RunInChild([&] {
    alarm(20);  // without the hook there is no end
    if (setresuid(kCaller, 0, 0) != 0) _exit(3);
    ServiceImpl_SetPreStartHook(ThirdCallFails);
    StartMuteListener(dir.Path("sock"));
    EXPECT_TRUE(ServiceImpl_PrivLower());
    const size_t before = OpenDescriptors();
    const int status = Meet(dir, "/bin/true", "0");
    dprintf(STDOUT_FILENO, "status %d, hook %d, lowered %d, descriptors %+d, now %u\n", status,
            hookCalls, hookWasLowered, static_cast<int>(OpenDescriptors() - before), geteuid());
  });
  const std::string log = WithoutStamps(result.output);
  EXPECT_NE(std::string::npos, log.find("status 1, hook 3, lowered 1, descriptors +0, now 54321\n"))
      << log;
}

TEST(Rendezvous, AHookThatRefusesStartsNothing) {
  const ScratchDir dir;
  const std::string log = WithoutStamps(CaptureOutput([&] {
    EXPECT_TRUE(ServiceImpl_PrivLower());
    ServiceImpl_SetPreStartHook([] { return false; });
    EXPECT_EQ(1, Meet(dir, "/missing", "0"));
    ServiceImpl_SetPreStartHook(nullptr);
  }));
  EXPECT_EQ(std::string::npos, log.find("Hostinfo_Daemonize")) << log;
}

TEST(Rendezvous, RefusesAnArgumentVectorWithoutTheProgram) {
  char *argv[] = {nullptr};
  const std::string log = WithoutStamps(CaptureOutput([&] {
    EXPECT_EQ(1, ServiceImpl_Opener(0, argv, 2, "/missing/l", "/missing/s", "/missing/d"));
  }));
  EXPECT_NE(std::string::npos, log.find("Warning: Invalid number of arguments.\n")) << log;
}

}  // namespace
