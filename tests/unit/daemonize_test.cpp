// daemonize_test.cpp -- what a daemon inherits, and what its starter learns of its start.
//
// The program is its own daemon: started as "daemonize_test --daemon REPORT [linger]" it writes
// what it finds about itself to the file REPORT.  What an opener's daemon inherits is tested as
// installed, in tests/system/handoff_test.cpp; failing calls in tests/system/faults_test.cpp.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "fd.h"
#include "hostinfo.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"

namespace {

namespace fs = std::filesystem;

// ---- the daemon's side ----------------------------------------------------------------------

// Before anything else is opened; what it finds goes into the report.
int DaemonMain(const std::string &report, bool linger) {
  std::ostringstream files;
  for (int fd = 0; fd < 1000; fd++) {
    std::error_code gone;
    const fs::path target = fs::read_symlink("/proc/self/fd/" + std::to_string(fd), gone);
    if (!gone)
      files << fd << '=' << target.native() << ':' << (fcntl(fd, F_GETFL) & O_ACCMODE) << ' ';
  }
  rlimit space;
  getrlimit(RLIMIT_AS, &space);
  std::ofstream(report + ".new") << getpid() << ' ' << getsid(0) << ' '
                                 << (space.rlim_cur == space.rlim_max) << ' '
                                 << fs::current_path().native() << ' ' << files.str();
  fs::rename(report + ".new", report);
  if (linger) pause();
  return 0;
}

// ---- the starter's side ---------------------------------------------------------------------

class Daemonize : public testing::Test {
 protected:
  const ScratchDir dir_;
  const std::string report_ = dir_.Path("report"), pidPath_ = dir_.Path("pid");
  const std::string self_ = fs::read_symlink("/proc/self/exe");
  // What the daemon has found.
  pid_t pid_ = 0, session_ = 0;
  int hasSpace_ = 0;
  std::string folder_, files_;

  bool Start(const std::string &program, int flags, const std::vector<int> &keep = {},
             const char *linger = nullptr) {
    const char *const argv[] = {"x", "--daemon", report_.c_str(), linger, nullptr};
    return Hostinfo_Daemonize(program.c_str(), argv, flags, pidPath_.c_str(), keep.data(),
                              keep.size());
  }

  void AwaitReport() {
    for (int i = 0; i < 2000 && !fs::exists(report_); i++) usleep(10000);
    std::ifstream in(report_);
    in >> pid_ >> session_ >> hasSpace_ >> folder_;
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
    _exit(Start(self_, 0, {300, 17}, "linger") ? 0 : 1);
  });
  ASSERT_EQ(0, starter.exitStatus) << starter.output;
  AwaitReport();
  EXPECT_EQ(" 0=/dev/null:0 1=/dev/null:1 2=/dev/null:1 17=" + kept + ":2 300=" + kept + ":2 ",
            files_);
  EXPECT_TRUE(hasSpace_ == 1 && folder_ == "/" && session_ != pid_ && session_ != getsid(0));
  // Without its flag the PID file is no lock.
  EXPECT_EQ(std::to_string(pid_) + "\n", ReadFile(pidPath_));
  EXPECT_EQ(fs::perms{0644}, fs::status(pidPath_).permissions());
  EXPECT_EQ(0, flock(Fd(open(pidPath_.c_str(), O_RDONLY)).Get(), LOCK_EX | LOCK_NB));
  kill(pid_, SIGKILL);
}

// The PID file and the pipe for reports must not be what /dev/null replaces in the daemon.
TEST_F(Daemonize, StartsFromAProcessWithoutStandardDescriptors) {
  for (const std::string &program : {std::string("/missing/x"), self_}) {
    const ChildResult starter = RunInChild([&] {
      for (const int number : {0, 1, 2}) close(number);
      _exit(Start(program, HOSTINFO_DAEMONIZE_LOCKPID) ? 0 : errno);
    });
    EXPECT_EQ(program == self_ ? 0 : ENOENT, starter.exitStatus);
    if (program == self_) AwaitReport();
    EXPECT_EQ(program == self_ ? std::to_string(pid_) + "\n" : "", ReadFile(pidPath_));
  }
}

TEST_F(Daemonize, FlagsKeepDirectorySessionAndStandardDescriptorsAndEndTheStarter) {
  const int flags =
      HOSTINFO_DAEMONIZE_NOCHDIR | HOSTINFO_DAEMONIZE_NOCLOSE | HOSTINFO_DAEMONIZE_EXIT;
  EXPECT_EQ(0, RunInChild([&] { (void)Start(self_, flags); }).exitStatus);
  AwaitReport();
  EXPECT_TRUE(folder_ == fs::current_path() && session_ == getsid(0)) << folder_;
  EXPECT_EQ(std::string::npos, files_.find("1=/dev/null")) << files_;
}

TEST_F(Daemonize, PidFileIsALockWhileTheDaemonLives) {
  dir_.Write("pid", "a much longer text of an earlier daemon\n");
  const auto start = [&] { return Start(self_, HOSTINFO_DAEMONIZE_LOCKPID, {}, "linger"); };
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
      Failure(EACCES, [&] { return Start(plain, 0); }));
  EXPECT_EQ(who + "Couldn't convert path [a\xc3] to default encoding.\n",
            Failure(EINVAL, [&] { return Start("a\xc3", 0); }));
  EXPECT_EQ(who + "Couldn't convert arguments to default encoding.\n", Failure(EINVAL, [&] {
              return Hostinfo_Daemonize("/x", badArgv, 0, pidPath_.c_str(), nullptr, 0);
            }));
  EXPECT_FALSE(fs::exists(pidPath_));
}

}  // namespace

int main(int argc, char *argv[]) {
  if (argc >= 3 && std::string(argv[1]) == "--daemon") return DaemonMain(argv[2], argc > 3);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
