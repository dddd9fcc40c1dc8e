// id_test.cpp -- the super-user bracket, thread by thread, and what is asked of processes.
//
// Everything that needs root runs in a child process, which ends with 42 (capture.h) when all is
// well and otherwise with the line that was not.

#include "id.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <latch>
#include <string>
#include <thread>

#include "fd.h"
#include "hostinfo.h"
#include "tests/support/capture.h"

namespace {

constexpr uid_t kUser = 4321;
bool geteuidIsAllOnes = false;

#define REQUIRE(condition) \
  if (!(condition)) _exit(__LINE__)

// The line "Uid:" of a thread: real, effective, saved and file-system user id.
std::string UidsOf(pid_t thread) {
  std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
  std::string line;
  while (std::getline(status, line) && !line.starts_with("Uid:")) {
  }
  return line;
}

TEST(SuperUser, BracketChangesTheCallingThreadOnlyAndNests) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const ChildResult result = RunInChild([] {
    // As the opener between its raises: the user's, but for the saved user id.
    REQUIRE(!Id_IsSetUGid() && setresuid(kUser, kUser, 0) == 0 && Id_IsSetUGid());
    const std::string lowered = "Uid:\t4321\t4321\t0\t4321", raised = "Uid:\t4321\t0\t0\t0";
    std::latch inBracket(1), looked(1);
    std::atomic<pid_t> other{0};
    std::thread thread([&] {
      other = static_cast<pid_t>(syscall(SYS_gettid));
      const uid_t saved = Id_BeginSuperUser();
      const uid_t nested = Id_BeginSuperUser();
      inBracket.count_down();
      looked.wait();
      Id_EndSuperUser(nested);
      REQUIRE(saved == kUser && nested == static_cast<uid_t>(-1) && UidsOf(other) == raised);
      REQUIRE(Fd(open("/etc/shadow", O_RDONLY)));
      Id_EndSuperUser(saved);
      Id_EndSuperUser(saved);  // is there already
      REQUIRE(UidsOf(other) == lowered && getegid() == getgid());
    });
    inBracket.wait();
    REQUIRE(UidsOf(other) == raised && UidsOf(getpid()) == lowered);
    REQUIRE(!Fd(open("/etc/shadow", O_RDONLY)));
    looked.count_down();
    thread.join();
    // A bracket that was used leaves its mark.
    REQUIRE(setresuid(0, 0, 0) == 0 && Id_IsSetUGid());
  });
  EXPECT_EQ(42, result.exitStatus);
  EXPECT_EQ("", result.output);
}

TEST(SuperUser, WhatCannotBeChangedIsToldOrLeftAlone) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root";
  const ChildResult unprivileged = RunInChild([] {
    REQUIRE(setresuid(kUser, kUser, kUser) == 0);
    REQUIRE(Id_BeginSuperUser() == kUser && geteuid() == kUser);
    Id_EndSuperUser(kUser);
    Id_EndSuperUser(kUser + 1);
    REQUIRE(geteuid() == kUser);
  });
  EXPECT_EQ(42, unprivileged.exitStatus);
  EXPECT_EQ("Failed to release super user privileges.\n", WithoutStamps(unprivileged.output));
  EXPECT_EQ("Panic: VERIFY lib/misc/idLinux:925\n", FatalText([] {
              geteuidIsAllOnes = true;
              static_cast<void>(Id_BeginSuperUser());
            }));
  EXPECT_EQ(
      "Warning: XXXMACOS: implement Id_SetGid\nWarning: XXX: implement Id_SetRESUid\n"
      "Warning: XXXMACOS: implement Id_SetREUid\n",
      WithoutStamps(CaptureOutput(
          [] { EXPECT_EQ(-3, Id_SetGid(1) + Id_SetRESUid(1, 1, 1) + Id_SetREUid(1, 1)); })));
}

TEST(ProcessState, TellsLivingDeadAndForeignProcesses) {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  siginfo_t info;
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT));
  errno = ETXTBSY;
  EXPECT_EQ(HOSTINFO_PROCESS_EXISTS, Hostinfo_ProcessState(child)) << "a zombie";
  ASSERT_EQ(child, waitpid(child, nullptr, 0));
  errno = ETXTBSY;
  EXPECT_EQ(HOSTINFO_PROCESS_DEAD, Hostinfo_ProcessState(child));
  EXPECT_EQ(ETXTBSY, errno);
  EXPECT_EQ(HOSTINFO_PROCESS_EXISTS, Hostinfo_ProcessState(getpid()));
  const ChildResult foreign = RunInChild([] {
    if (geteuid() == 0) REQUIRE(setresuid(kUser, kUser, kUser) == 0);
    REQUIRE(Hostinfo_ProcessState(1) == HOSTINFO_PROCESS_EXISTS);
  });
  EXPECT_EQ(42, foreign.exitStatus);
}

}  // namespace

extern "C" {
uid_t __real_geteuid();
uid_t __wrap_geteuid();
uid_t __wrap_geteuid() {
  return geteuidIsAllOnes ? static_cast<uid_t>(-1) : __real_geteuid();
}
}
