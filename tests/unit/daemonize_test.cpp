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
#include <map>
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
  std::ostringstream out;
  out << "files";
  for (int fd = 0; fd < 1000; fd++) {
    std::error_code gone;
    const fs::path target = fs::read_symlink("/proc/self/fd/" + std::to_string(fd), gone);
    if (!gone) out << ' ' << fd << '=' << target.native();
  }
  rlimit space;
  getrlimit(RLIMIT_AS, &space);
  out << "\ncwd " << fs::current_path().native() << "\npid " << getpid() << "\nsid " << getsid(0)
      << "\nspace " << (space.rlim_cur == space.rlim_max) << "\nmodes";
  for (const int fd : {0, 1, 2}) out << ' ' << (fcntl(fd, F_GETFL) & O_ACCMODE);
  std::ofstream(report + ".new") << out.str();
  fs::rename(report + ".new", report);
  if (linger) pause();
  return 0;
}

// ---- the starter's side ---------------------------------------------------------------------

class Daemonize : public testing::Test {
 protected:
  const ScratchDir dir_;
  const std::string report_ = dir_.Path("report");
  const std::string pidPath_ = dir_.Path("pid");
  const std::string self_ = fs::read_symlink("/proc/self/exe");

  bool Start(int flags, const char *pidPath = nullptr, std::vector<int> keep = {},
             bool linger = false) {
    const char *const argv[] = {self_.c_str(), "--daemon", report_.c_str(),
                                linger ? "linger" : nullptr, nullptr};
    return Hostinfo_Daemonize(self_.c_str(), argv, flags, pidPath, keep.data(), keep.size());
  }

  // The report's lines by their first word, once the daemon has written it.
  std::map<std::string, std::string> Report() {
    for (int i = 0; i < 2000 && !fs::exists(report_); i++) usleep(10000);
    std::map<std::string, std::string> lines;
    std::ifstream in(report_);
    for (std::string line; std::getline(in, line);) {
      lines[line.substr(0, line.find(' '))] = line.substr(line.find(' ') + 1);
    }
    fs::remove(report_);
    return lines;
  }
};

// What a start that must fail logs; its errno must be `error`.
std::string Failure(int error, const std::function<bool()> &start) {
  return WithoutStamps(CaptureOutput([&] {
    EXPECT_FALSE(start());
    EXPECT_EQ(error, errno);
  }));
}

const char *const kArgv[] = {"x", nullptr};

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
    _exit(Start(0, pidPath_.c_str(), {300, 17}, true) ? 0 : 1);
  });
  ASSERT_EQ(0, starter.exitStatus) << starter.output;
  auto report = Report();
  EXPECT_EQ("0=/dev/null 1=/dev/null 2=/dev/null 17=" + kept + " 300=" + kept, report["files"]);
  EXPECT_EQ("1", report["space"]);
  EXPECT_EQ(
      std::to_string(O_RDONLY) + " " + std::to_string(O_WRONLY) + " " + std::to_string(O_WRONLY),
      report["modes"]);
  // Without its flag the PID file is no lock.
  EXPECT_EQ(report["pid"] + "\n", ReadFile(pidPath_));
  EXPECT_EQ(fs::perms{0644}, fs::status(pidPath_).permissions());
  EXPECT_EQ(0, flock(Fd(open(pidPath_.c_str(), O_RDONLY)).Get(), LOCK_EX | LOCK_NB));
  kill(std::stoi(report["pid"]), SIGKILL);
}

// The PID file and the pipe for reports must not be what /dev/null replaces in the daemon.
TEST_F(Daemonize, StartsFromAProcessWithoutStandardDescriptors) {
  for (const std::string &program : {self_, std::string("/missing/x")}) {
    const ChildResult starter = RunInChild([&] {
      for (const int number : {0, 1, 2}) close(number);
      const char *const argv[] = {"x", "--daemon", report_.c_str(), nullptr};
      _exit(Hostinfo_Daemonize(program.c_str(), argv, HOSTINFO_DAEMONIZE_LOCKPID, pidPath_.c_str(),
                               nullptr, 0)
                ? 0
                : errno);
    });
    EXPECT_EQ(program == self_ ? 0 : ENOENT, starter.exitStatus);
    EXPECT_EQ(program == self_ ? Report()["pid"] + "\n" : "", ReadFile(pidPath_));
  }
}

TEST_F(Daemonize, FlagsKeepDirectorySessionAndStandardDescriptorsAndEndTheStarter) {
  constexpr int kFlags =
      HOSTINFO_DAEMONIZE_NOCHDIR | HOSTINFO_DAEMONIZE_NOCLOSE | HOSTINFO_DAEMONIZE_EXIT;
  EXPECT_EQ(0, RunInChild([&] { (void)Start(kFlags); }).exitStatus);
  auto report = Report();
  EXPECT_EQ(fs::current_path().native(), report["cwd"]);
  EXPECT_EQ(std::to_string(getsid(0)), report["sid"]);
  EXPECT_EQ(std::string::npos, report["files"].find("1=/dev/null")) << report["files"];
  EXPECT_EQ(42, RunInChild([] {
                  (void)Hostinfo_Daemonize("/missing/x", kArgv, kFlags, nullptr, nullptr, 0);
                }).exitStatus)
      << "on success only";
}

TEST_F(Daemonize, PidFileIsALockWhileTheDaemonLives) {
  dir_.Write("pid", "a much longer text of an earlier daemon\n");
  const auto start = [&] { return Start(HOSTINFO_DAEMONIZE_LOCKPID, pidPath_.c_str(), {}, true); };
  ASSERT_TRUE(start());
  const std::string first = Report()["pid"];
  EXPECT_EQ("Warning: Hostinfo_Daemonize: Lock held on PID path [" + pidPath_ + "], error " +
                std::to_string(EWOULDBLOCK) + ", not daemonizing.\n",
            Failure(EWOULDBLOCK, start));
  EXPECT_EQ(first + "\n", ReadFile(pidPath_));
  kill(std::stoi(first), SIGKILL);
  for (int i = 0; i < 1000 && !start(); i++) usleep(10000);
  const std::string second = Report()["pid"];
  EXPECT_EQ(second + "\n", ReadFile(pidPath_));
  kill(std::stoi(second), SIGKILL);
}

TEST_F(Daemonize, TellsWhyItCannotAndLeavesNoPidFile) {
  const std::string missing = dir_.Path("missing"), plain = dir_.Write("plain", "no program");
  const char *const badArgv[] = {"x", "\xff", nullptr};
  const struct {
    std::string path;
    const char *const *argv;
    std::string pidPath;
    int error;
    std::string text;
  } rows[] = {
      {plain, kArgv, pidPath_, EACCES, "Child could not exec " + plain + ", read 4, error "},
      {"a\xc3", kArgv, pidPath_, EINVAL, "Couldn't convert path [a\xc3] to default encoding.\n"},
      {"/x", badArgv, pidPath_, EINVAL, "Couldn't convert arguments to default encoding.\n"},
      {"/x", kArgv, missing + "/pid", ENOENT,
       "Couldn't open PID path [" + missing + "/pid], error "},
  };
  for (const auto &row : rows) {
    const std::string log = Failure(row.error, [&] {
      return Hostinfo_Daemonize(row.path.c_str(), row.argv, 0, row.pidPath.c_str(), nullptr, 0);
    });
    const std::string number = row.error == EINVAL ? "" : std::to_string(row.error) + ".\n";
    EXPECT_EQ("Warning: Hostinfo_Daemonize: " + row.text + number, log);
    EXPECT_FALSE(fs::exists(pidPath_));
  }
}

}  // namespace

int main(int argc, char *argv[]) {
  if (argc >= 3 && std::string(argv[1]) == "--daemon") return DaemonMain(argv[2], argc > 3);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
