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

#include <cerrno>
#include <fstream>
#include <string>
#include <thread>

#include "fd.h"
#include "hostinfo.h"
#include "tests/support/capture.h"
#include "tests/support/sandboxSkip.h"

namespace {

constexpr uid_t kUser = 4321;
bool geteuidIsAllOnes = false;

#define REQUIRE(condition) \
  if (!(condition)) _exit(__LINE__ & 255)

// The line "Uid:" of a thread: real, effective, saved and file-system user id.
std::string UidsOf(pid_t thread) {
  std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
  std::string line;
  while (std::getline(status, line) && !line.starts_with("Uid:")) {
  }
  return line;
}

TEST(SuperUser, BracketChangesTheCallingThreadOnlyAndNests) {
  if (geteuid() != 0) SKIP_FOR_WANT_OF("root");
  const ChildResult result = RunInChild([] {
    // As the opener between its raises: the user's, but for the saved user id.
    REQUIRE(!Id_IsSetUGid() && setresgid(kUser, kUser, 0) == 0);
    REQUIRE(setresuid(kUser, kUser, 0) == 0 && Id_IsSetUGid());
    const std::string lowered = "Uid:\t4321\t4321\t0\t4321", raised = "Uid:\t4321\t0\t0\t0";
    std::thread thread([&] {
      const auto self = static_cast<pid_t>(syscall(SYS_gettid));
      const uid_t saved = Id_BeginSuperUser();
      Id_EndSuperUser(Id_BeginSuperUser());
      REQUIRE(saved == kUser && UidsOf(self) == raised && UidsOf(getpid()) == lowered);
      REQUIRE(Fd(open("/etc/shadow", O_RDONLY)));
      Id_EndSuperUser(saved);
      Id_EndSuperUser(saved);  // is there already
      REQUIRE(UidsOf(self) == lowered && getegid() == getgid());
    });
    thread.join();
    // A bracket that was used leaves its mark.
    REQUIRE(setresuid(0, 0, 0) == 0 && Id_IsSetUGid());
  });
  EXPECT_EQ(42, result.exitStatus);
  EXPECT_EQ("", result.output);
}

TEST(SuperUser, WhatCannotBeChangedIsToldOrLeftAlone) {
  if (geteuid() != 0) SKIP_FOR_WANT_OF("root");
  const ChildResult unprivileged = RunInChild([] {
    // A set-group-ID program that has lowered itself: no bracket raises it.
    REQUIRE(setresgid(kUser, kUser, 0) == 0 && setresuid(kUser, kUser, kUser) == 0);
    REQUIRE(Id_BeginSuperUser() == kUser && geteuid() == kUser && getegid() == kUser);
    Id_EndSuperUser(kUser);
    Id_EndSuperUser(kUser + 1);
    REQUIRE(geteuid() == kUser && Hostinfo_ProcessState(1) == HOSTINFO_PROCESS_EXISTS);
    if (Id_SetGid(1) + Id_SetRESUid(1, 1, 1) + Id_SetREUid(1, 1) != -3) _exit(3);
  });
  EXPECT_EQ(42, unprivileged.exitStatus);
  EXPECT_EQ(
      "Failed to release super user privileges.\nWarning: XXXMACOS: implement Id_SetGid\n"
      "Warning: XXX: implement Id_SetRESUid\nWarning: XXXMACOS: implement Id_SetREUid\n",
      WithoutStamps(unprivileged.output));
  EXPECT_EQ("Panic: VERIFY lib/misc/idLinux:925\n", FatalText([] {
              geteuidIsAllOnes = true;
              static_cast<void>(Id_BeginSuperUser());
            }));
}

TEST(ProcessState, TellsLivingFromDeadProcesses) {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  siginfo_t info;
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT));
  EXPECT_EQ(HOSTINFO_PROCESS_EXISTS, Hostinfo_ProcessState(child)) << "a zombie";
  ASSERT_EQ(child, waitpid(child, nullptr, 0));
  errno = ETXTBSY;
  EXPECT_TRUE(Hostinfo_ProcessState(child) == HOSTINFO_PROCESS_DEAD && errno == ETXTBSY);
}

}  // namespace

extern "C" {
uid_t __real_geteuid();
uid_t __wrap_geteuid();
uid_t __wrap_geteuid() {
  return geteuidIsAllOnes ? static_cast<uid_t>(-1) : __real_geteuid();
}
}
