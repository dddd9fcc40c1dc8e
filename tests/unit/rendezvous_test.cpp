// rendezvous_test.cpp -- the loop of passes: what each one leaves open, and when the hook runs.

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "opener/serviceImpl.h"
#include "tests/support/asRoot.h"
#include "tests/support/capture.h"
#include "tests/support/process.h"
#include "tests/support/scratchDir.h"

namespace {

constexpr uid_t kCaller = 54321;
int hookCalls;
bool hookWasLowered = true;

bool ThirdCallFails() {
  // Lowered, and out of the caller's reach.
  hookWasLowered = hookWasLowered && geteuid() == kCaller && getuid() == 0;
  return ++hookCalls < 3;
}

// /bin/true is a service that dies before it greets anybody: each start ends in another pass.
TEST(Rendezvous, AsksTheHookAsTheCallerBeforeEachStartAndLeavesNothingOpen) {
  RUN_AS_ROOT();
  const ScratchDir dir;
  const ChildResult result = RunInChild([&] {
    alarm(20);  // without the hook there is no end
    if (setresuid(kCaller, 0, 0) != 0) _exit(3);
    ServiceImpl_SetPreStartHook(ThirdCallFails);
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

}  // namespace
