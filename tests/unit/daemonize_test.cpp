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

#include <algorithm>
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
#include "tests/support/sandboxSkip.h"
#include "tests/support/scratchDir.h"

namespace {

namespace fs = std::filesystem;

// ---- the daemon's side ----------------------------------------------------------------------

// Descriptors as "number=target", before anything else is opened.
std::string OpenFiles() {
  std::map<int, std::string> files;
  for (const auto &entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = fs::read_symlink(entry.path(), gone);
    if (!target.starts_with("/proc/")) files[std::stoi(entry.path().filename())] = target;
  }
  std::string text;
  for (const auto &[number, target] : files) text += std::to_string(number) + "=" + target + " ";
  return text;
}

int DaemonMain(const std::string &report, bool linger) {
  const std::string files = OpenFiles();
  rlimit space;
  getrlimit(RLIMIT_AS, &space);
  std::ofstream out(report + ".new");
  out << "files " << files << "\ncwd " << fs::current_path().native() << "\npid " << getpid()
      << "\nsid " << getsid(0) << "\nspace " << (space.rlim_cur == space.rlim_max) << "\nmodes";
  for (const int fd : {0, 1, 2}) out << ' ' << (fcntl(fd, F_GETFL) & O_ACCMODE);
  out.close();
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

// What a start that must fail logs, after the beginning; its errno must be `error`.
std::string Failure(int error, const std::function<bool()> &start) {
  const std::string log = WithoutStamps(CaptureOutput([&] {
    errno = 0;
    EXPECT_FALSE(start());
    EXPECT_EQ(error, errno);
  }));
  const std::string who = "Warning: Hostinfo_Daemonize: ";
  EXPECT_TRUE(log.starts_with(who)) << log;
  return log.substr(std::min(log.size(), who.size()));
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
    _exit(Start(0, nullptr, {300, 17}) ? 0 : 1);
  });
  ASSERT_EQ(0, starter.exitStatus) << starter.output;
  auto report = Report();
  EXPECT_EQ("0=/dev/null 1=/dev/null 2=/dev/null 17=" + kept + " 300=" + kept + " ",
            report["files"]);
  EXPECT_EQ("1", report["space"]);
  std::ostringstream modes;
  modes << O_RDONLY << ' ' << O_WRONLY << ' ' << O_WRONLY;
  EXPECT_EQ(modes.str(), report["modes"]);
}

// The PID file and the pipe for reports must not be what /dev/null replaces in the daemon.
TEST_F(Daemonize, StartsFromAProcessWithoutStandardDescriptors) {
  const auto start = [&](const std::function<bool()> &body) {
    return RunInChild([&] {
             for (const int number : {0, 1, 2}) close(number);
             _exit(body() ? 0 : errno);
           })
        .exitStatus;
  };
  EXPECT_EQ(0, start([&] { return Start(HOSTINFO_DAEMONIZE_LOCKPID, pidPath_.c_str()); }));
  EXPECT_EQ(Report()["pid"] + "\n", ReadFile(pidPath_));
  EXPECT_EQ(ENOENT,
            start([] { return Hostinfo_Daemonize("/missing/x", kArgv, 0, nullptr, nullptr, 0); }));
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
  EXPECT_EQ("Lock held on PID path [" + pidPath_ + "], error " + std::to_string(EWOULDBLOCK) +
                ", not daemonizing.\n",
            Failure(EWOULDBLOCK, start));
  EXPECT_EQ(first + "\n", ReadFile(pidPath_));

  kill(std::stoi(first), SIGKILL);
  bool started = false;
  for (int i = 0; i < 1000 && !(started = start()); i++) usleep(10000);
  ASSERT_TRUE(started);
  const std::string second = Report()["pid"];
  EXPECT_EQ(second + "\n", ReadFile(pidPath_));
  kill(std::stoi(second), SIGKILL);
}

TEST_F(Daemonize, PidFileWithoutLockIsOnlyWritten) {
  ASSERT_TRUE(Start(0, pidPath_.c_str(), {}, true));
  auto report = Report();
  EXPECT_EQ("0=/dev/null 1=/dev/null 2=/dev/null ", report["files"]);
  EXPECT_EQ(report["pid"] + "\n", ReadFile(pidPath_));
  EXPECT_EQ(fs::perms{0644}, fs::status(pidPath_).permissions());
  const Fd file(open(pidPath_.c_str(), O_RDONLY));
  EXPECT_EQ(0, flock(file.Get(), LOCK_EX | LOCK_NB));
  kill(std::stoi(report["pid"]), SIGKILL);
}

TEST_F(Daemonize, TellsWhyItCannotAndLeavesNoPidFile) {
  const std::string missing = dir_.Path("missing"), plain = dir_.Write("plain", "no program");
  const char *const badArgv[] = {"x", "\xff", nullptr};
  const auto notRun = [](const std::string &path, int error) {
    return "Child could not exec " + path + ", read 4, error " + std::to_string(error) + ".\n";
  };
  const struct {
    std::string path;
    const char *const *argv;
    std::string pidPath;
    int error;
    std::string text;
  } rows[] = {
      {missing, kArgv, pidPath_, ENOENT, notRun(missing, ENOENT)},
      {plain, kArgv, pidPath_, EACCES, notRun(plain, EACCES)},
      {"a\xc3", kArgv, pidPath_, EINVAL, "Couldn't convert path [a\xc3] to default encoding.\n"},
      {"/x", badArgv, pidPath_, EINVAL, "Couldn't convert arguments to default encoding.\n"},
      {"/x", kArgv, missing + "/pid", ENOENT,
       "Couldn't open PID path [" + missing + "/pid], error " + std::to_string(ENOENT) + ".\n"},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(row.text, Failure(row.error, [&] {
                return Hostinfo_Daemonize(row.path.c_str(), row.argv, 0, row.pidPath.c_str(),
                                          nullptr, 0);
              }));
    EXPECT_FALSE(fs::exists(pidPath_));
  }
}

TEST_F(Daemonize, ReportsASecondForkThatFails) {
  if (geteuid() != 0) SKIP_FOR_WANT_OF("root, to take a user id without other processes");
  // The process limit holds for a user id.  Nobody has these, not even another run of this test; a
  // container's range of ids may end at 65535.
  const auto user = static_cast<uid_t>(30000 + getpid() % 30000);
  const ChildResult result = RunInChild([&] {
    signal(SIGCHLD, SIG_IGN);  // which must not throw away the status that tells of it
    const rlimit limit = {2, 2};
    if (setresuid(user, user, user) != 0 || setrlimit(RLIMIT_NPROC, &limit) != 0) _exit(3);
    _exit(Start(0) ? 0 : errno);
  });
  EXPECT_EQ(EINVAL, result.exitStatus);
  EXPECT_NE(std::string::npos, result.output.find("Couldn't fork second child, error " +
                                                  std::to_string(EAGAIN) + ".\n"))
      << result.output;
}

}  // namespace

int main(int argc, char *argv[]) {
  if (argc >= 3 && std::string(argv[1]) == "--daemon") return DaemonMain(argv[2], argc > 3);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
