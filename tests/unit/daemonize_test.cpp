// daemonize_test.cpp -- what a daemon inherits, and what its starter learns of its start.
//
// The daemon is a shell that writes what it finds about itself to a file.  What an opener's daemon
// inherits is tested as installed, in tests/system/handoff_test.cpp; failing calls in
// tests/system/faults_test.cpp.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "fd.h"
#include "hostinfo.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"

namespace {

namespace fs = std::filesystem;

// In the end its descriptors, by a process of their own: the shell opens none for that.
constexpr char kDaemon[] = R"(
  echo $$ $(cut -d" " -f6 /proc/$$/stat) $(ulimit -v) $(pwd -P) >"$0.new"
  grep -h flags /proc/$$/fdinfo/[012] | tr "\n" " " >>"$0.new"
  (find /proc/$$/fd -type l -printf " %f=%l" >>"$0.new")
  mv "$0.new" "$0"
  ${1:+exec sleep 1000})";

class Daemonize : public testing::Test {
 protected:
  const ScratchDir dir_;
  const std::string report_ = dir_.Path("report"), pidPath_ = dir_.Path("pid");
  // What the daemon has found.
  pid_t pid_ = 0, session_ = 0;
  std::string space_, folder_, files_;

  bool Start(const char *program, int flags, const std::vector<int> &keep = {},
             const char *linger = nullptr) {
    const char *const argv[] = {"x", "-c", kDaemon, report_.c_str(), linger, nullptr};
    return Hostinfo_Daemonize(program, argv, flags, pidPath_.c_str(), keep.data(), keep.size());
  }

  void AwaitReport() {
    for (int i = 0; i < 2000 && !fs::exists(report_); i++) usleep(10000);
    std::ifstream in(report_);
    in >> pid_ >> session_ >> space_ >> folder_ >> std::ws;
    std::getline(in, files_);
    fs::remove(report_);
  }

  // What a start that must fail logs; its errno must be `error`.
  static std::string Failure(int error, const std::function<bool()> &start) {
    return WithoutStamps(CaptureOutput([&] {
      EXPECT_FALSE(start());
      EXPECT_EQ(error, errno);
    }));
  }
};

TEST_F(Daemonize, InheritsTheKeptDescriptorsAndNothingElse) {
  const std::string kept = dir_.Write("kept", "");
  const ChildResult starter = RunInChild([&] {
    const Fd file(open(kept.c_str(), O_RDWR));
    for (const int number : {5, 17, 18, 300, 400}) dup2(file.Get(), number);
    const rlimit low = {64, 4096};
    setrlimit(RLIMIT_NOFILE, &low);  // 300 and 400 stay open
    // More than any program has, so that it does not get in the way of a sanitizer.
    const rlimit space = {rlim_t{1} << 47, RLIM_INFINITY};
    setrlimit(RLIMIT_AS, &space);
    _exit(Start("/bin/sh", 0, {300, 17}, "linger") ? 0 : 1);
  });
  ASSERT_EQ(0, starter.exitStatus) << starter.output;
  AwaitReport();
  EXPECT_EQ(
      "flags:\t0100000 flags:\t0100001 flags:\t0100001  0=/dev/null 1=/dev/null 2=/dev/null 17=" +
          kept + " 300=" + kept,
      files_);
  EXPECT_TRUE(space_ == "unlimited" && folder_ == "/" && session_ != pid_ && session_ != getsid(0));
  // Without its flag the PID file is no lock.
  EXPECT_EQ(std::to_string(pid_) + "\n", ReadFile(pidPath_));
  EXPECT_EQ(fs::perms{0644}, fs::status(pidPath_).permissions());
  EXPECT_EQ(0, flock(Fd(open(pidPath_.c_str(), O_RDONLY)).Get(), LOCK_EX | LOCK_NB));
  kill(pid_, SIGKILL);
}

// The PID file and the pipe for reports must not be what /dev/null replaces in the daemon.
TEST_F(Daemonize, StartsFromAProcessWithoutStandardDescriptors) {
  for (const int error : {ENOENT, 0}) {
    const ChildResult starter = RunInChild([&] {
      for (const int number : {0, 1, 2}) close(number);
      const char *const program = error == 0 ? "/bin/sh" : "/missing/x";
      _exit(Start(program, HOSTINFO_DAEMONIZE_LOCKPID) ? 0 : errno);
    });
    EXPECT_EQ(error, starter.exitStatus);
    EXPECT_EQ(error == 0, fs::exists(pidPath_));
  }
  AwaitReport();
  EXPECT_EQ(std::to_string(pid_) + "\n", ReadFile(pidPath_));
}

TEST_F(Daemonize, FlagsKeepDirectorySessionAndStandardDescriptorsAndEndTheStarter) {
  const int flags =
      HOSTINFO_DAEMONIZE_NOCHDIR | HOSTINFO_DAEMONIZE_NOCLOSE | HOSTINFO_DAEMONIZE_EXIT;
  EXPECT_EQ(0, RunInChild([&] { (void)Start("/bin/sh", flags); }).exitStatus);
  AwaitReport();
  EXPECT_TRUE(folder_ == fs::current_path() && session_ == getsid(0)) << folder_;
  EXPECT_EQ(std::string::npos, files_.find("1=/dev/null")) << files_;
}

TEST_F(Daemonize, PidFileIsALockWhileTheDaemonLives) {
  dir_.Write("pid", "a much longer text of an earlier daemon\n");
  const auto start = [&] { return Start("/bin/sh", HOSTINFO_DAEMONIZE_LOCKPID, {}, "linger"); };
  ASSERT_TRUE(start());
  EXPECT_EQ("Warning: Hostinfo_Daemonize: Lock held on PID path [" + pidPath_ + "], error " +
                std::to_string(EWOULDBLOCK) + ", not daemonizing.\n",
            Failure(EWOULDBLOCK, start));
  AwaitReport();
  EXPECT_EQ(std::to_string(pid_) + "\n", ReadFile(pidPath_));
  kill(pid_, SIGKILL);
}

TEST_F(Daemonize, TellsWhyItCannotAndLeavesNoPidFile) {
  const std::string plain = dir_.Write("plain", "no program");
  const char *const badArgv[] = {"x", "\xff", nullptr};
  const std::string who = "Warning: Hostinfo_Daemonize: ";
  EXPECT_EQ(
      who + "Child could not exec " + plain + ", read 4, error " + std::to_string(EACCES) + ".\n",
      Failure(EACCES, [&] { return Start(plain.c_str(), 0); }));
  EXPECT_EQ(who + "Couldn't convert path [a\xc3] to default encoding.\n",
            Failure(EINVAL, [&] { return Start("a\xc3", 0); }));
  EXPECT_EQ(who + "Couldn't convert arguments to default encoding.\n", Failure(EINVAL, [&] {
              return Hostinfo_Daemonize("/x", badArgv, 0, pidPath_.c_str(), nullptr, 0);
            }));
  EXPECT_FALSE(fs::exists(pidPath_));
}

TEST_F(Daemonize, TheHookIsTheLastStepBeforeExec) {
  // The PID file is written, the directory changed; the daemon does not come to exec.
  Hostinfo_SetPreExecHook([] {
    errno = getcwd(std::array<char, 2>{}.data(), 2) != nullptr ? EIDRM : 0;
    return false;
  });
  const std::string prefix = "Warning: Hostinfo_Daemonize: Child could not exec /bin/sh, read 4, ";
  EXPECT_EQ(prefix + "error " + std::to_string(EIDRM) + ".\n",
            Failure(EIDRM, [&] { return Start("/bin/sh", 0); }));
  Hostinfo_SetPreExecHook([] { return chdir("/proc") == 0; });
  EXPECT_TRUE(Start("/bin/sh", 0));
  AwaitReport();
  EXPECT_EQ("/proc", folder_);
  Hostinfo_SetPreExecHook(nullptr);
}

TEST_F(Daemonize, TellsThatItCannotWhenNobodyReadsTheLog) {
  const ChildResult starter = RunInChild([&] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0 || close(ends[0]) != 0) _exit(1);
    signal(SIGPIPE, SIG_IGN);
    _exit(Start("/missing/x", HOSTINFO_DAEMONIZE_NOCLOSE) ? 0 : errno);
  });
  EXPECT_EQ(ENOENT, starter.exitStatus);
}

}  // namespace
