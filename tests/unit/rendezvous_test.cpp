// rendezvous_test.cpp -- the loop of passes: what each one leaves open, and when the hook runs.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "fd.h"
#include "opener/serviceImpl.h"
#include "tests/support/capture.h"
#include "tests/support/fakeService.h"
#include "tests/support/process.h"
#include "tests/support/sandboxSkip.h"
#include "tests/support/scratchDir.h"

namespace {

constexpr uid_t kCaller = 54321;
int hookCalls;
bool hookWasLowered = true;

bool ThirdCallFails() {
  hookWasLowered = hookWasLowered && geteuid() == kCaller;
  return ++hookCalls < 3;
}

// A listener in a process of its own that closes its one connection without a greeting.
void StartMuteListener(const std::string &path) {
  const Fd listener = ListenAt(path);
  if (fork() != 0) return;
  Fd(accept(listener.Get(), nullptr, nullptr)).Reset();
  _exit(0);
}

// /bin/true is a service that dies before it greets anybody: each start ends in another pass.
TEST(Rendezvous, AsksTheHookAsTheCallerBeforeEachStartAndLeavesNothingOpen) {
  if (geteuid() != 0) SKIP_FOR_WANT_OF("root, to have an identity to lower");
  const ScratchDir dir;
  const ChildResult result = RunInChild([&] {
    alarm(20);  // without the hook there is no end
    if (setresuid(kCaller, 0, 0) != 0) _exit(3);
    ServiceImpl_SetPreStartHook(ThirdCallFails);
    StartMuteListener(dir.Path("sock"));
    EXPECT_TRUE(ServiceImpl_PrivLower());
    const size_t before = OpenDescriptors();
    std::string program = "opener", fd = "0";
    char *argv[] = {program.data(), fd.data(), nullptr};
    const int status = ServiceImpl_Opener(2, argv, 2, dir.Path("lock").c_str(),
                                          dir.Path("sock").c_str(), "/bin/true");
    dprintf(STDOUT_FILENO, "status %d, hook %d, lowered %d, leaked %zd, now %u\n", status,
            hookCalls, hookWasLowered, OpenDescriptors() - before, geteuid());
  });
  const std::string log = WithoutStamps(result.output);
  EXPECT_NE(std::string::npos, log.find("status 1, hook 3, lowered 1, leaked 0, now 54321\n"))
      << log;
}

TEST(Rendezvous, RefusesAnArgumentVectorWithoutTheProgram) {
  char *argv[] = {nullptr};
  const std::string log = WithoutStamps(CaptureOutput([&] {
    EXPECT_EQ(1, ServiceImpl_Opener(0, argv, 2, "/missing/l", "/missing/s", "/missing/d"));
  }));
  EXPECT_NE(std::string::npos, log.find("Warning: Invalid number of arguments.\n")) << log;
}

}  // namespace
