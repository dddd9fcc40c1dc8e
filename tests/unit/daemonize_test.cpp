// daemonize_test.cpp -- what a daemon inherits, and what its starter learns of its start.
//
// The program is its own daemon: started as "daemonize_test --daemon REPORT [linger]" it writes
// what it finds about itself to the file REPORT.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "fd.h"
#include "hostinfo.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"

namespace {

namespace fs = std::filesystem;

// ---- the daemon's side ----------------------------------------------------------------------

std::string SignalLine(const char *name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name)) return line.substr(line.find_last_of(" \t") + 1);
  }
  return "?";
}

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

// How 0, 1 and 2 are open.
std::string OpenModes() {
  std::string text;
  for (const int fd : {0, 1, 2}) text += std::to_string(fcntl(fd, F_GETFL) & O_ACCMODE) + " ";
  return text;
}

int DaemonMain(const std::string &report, bool linger) {
  const std::string files = OpenFiles();
  rlimit space;
  getrlimit(RLIMIT_AS, &space);
  std::ofstream(report + ".new") << "files " << files << "\ncwd " << fs::current_path().native()
                                 << "\npid " << getpid() << "\nsid " << getsid(0) << "\nignored "
                                 << SignalLine("SigIgn") << "\nblocked " << SignalLine("SigBlk")
                                 << "\nspace " << (space.rlim_cur == space.rlim_max) << "\nmodes "
                                 << OpenModes() << "\n";
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

std::string Text(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string Text(const char *format, ...) {
  char line[1000];
  va_list args;
  va_start(args, format);
  vsnprintf(line, sizeof line, format, args);
  va_end(args);
  return line;
}

TEST_F(Daemonize, InheritsTheKeptDescriptorsAndNothingElse) {
  const std::string kept = dir_.Write("kept", "");
  const ChildResult starter = RunInChild([&] {
    signal(SIGUSR1, SIG_IGN);
    signal(SIGCHLD, SIG_IGN);  // so there is no status of the first child to be had
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
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
  EXPECT_EQ(Text("0=/dev/null 1=/dev/null 2=/dev/null 17=%s 300=%s ", kept.c_str(), kept.c_str()),
            report["files"]);
  EXPECT_EQ("/", report["cwd"]);
  EXPECT_NE(std::to_string(getsid(0)), report["sid"]);
  EXPECT_NE(report["pid"], report["sid"]);  // no leader: it cannot get a terminal by accident
  EXPECT_EQ("0000000000000000", report["ignored"]);
  EXPECT_EQ("0000000000000000", report["blocked"]);
  EXPECT_EQ("1", report["space"]);
  EXPECT_EQ(Text("%d %d %d ", O_RDONLY, O_WRONLY, O_WRONLY), report["modes"]);
}

TEST_F(Daemonize, StartsFromAProcessWithoutStandardDescriptors) {
  const ChildResult starter = RunInChild([&] {
    for (const int number : {0, 1, 2}) close(number);
    _exit(Start(HOSTINFO_DAEMONIZE_LOCKPID, pidPath_.c_str(), {}) ? 0 : 1);
  });
  EXPECT_EQ(0, starter.exitStatus);
  auto report = Report();
  EXPECT_TRUE(report["files"].starts_with("0=/dev/null 1=/dev/null 2=/dev/null "))
      << report["files"];
  EXPECT_EQ(report["pid"] + "\n", ReadFile(pidPath_));

  const ChildResult failing = RunInChild([&] {
    for (const int number : {0, 1, 2}) close(number);
    const char *const argv[] = {"x", nullptr};
    _exit(Hostinfo_Daemonize("/missing/x", argv, 0, nullptr, nullptr, 0) ? 0 : errno);
  });
  EXPECT_EQ(ENOENT, failing.exitStatus);  // the report does not go to /dev/null
}

TEST_F(Daemonize, FlagsKeepDirectorySessionAndStandardDescriptors) {
  ASSERT_TRUE(Start(HOSTINFO_DAEMONIZE_NOCHDIR | HOSTINFO_DAEMONIZE_NOCLOSE));
  auto report = Report();
  EXPECT_EQ(fs::current_path().native(), report["cwd"]);
  EXPECT_EQ(std::to_string(getsid(0)), report["sid"]);
  EXPECT_EQ(std::string::npos, report["files"].find("1=/dev/null")) << report["files"];
}

TEST_F(Daemonize, ExitFlagEndsTheStarterOnSuccessOnly) {
  EXPECT_EQ(0, RunInChild([&] { (void)Start(HOSTINFO_DAEMONIZE_EXIT); }).exitStatus);
  EXPECT_FALSE(Report().empty());
  EXPECT_EQ(42, RunInChild([&] {
                  const char *const argv[] = {"x", nullptr};
                  (void)Hostinfo_Daemonize("/missing/x", argv, HOSTINFO_DAEMONIZE_EXIT, nullptr,
                                           nullptr, 0);
                }).exitStatus);
}

TEST_F(Daemonize, PidFileIsALockWhileTheDaemonLives) {
  dir_.Write("pid", "a much longer text of an earlier daemon\n");
  ASSERT_TRUE(Start(HOSTINFO_DAEMONIZE_LOCKPID, pidPath_.c_str(), {}, true));
  const std::string first = Report()["pid"];
  EXPECT_EQ(first + "\n", ReadFile(pidPath_));

  const std::string log = WithoutStamps(CaptureOutput([&] {
    EXPECT_FALSE(Start(HOSTINFO_DAEMONIZE_LOCKPID, pidPath_.c_str()));
    EXPECT_EQ(EWOULDBLOCK, errno);
  }));
  EXPECT_EQ(Text("Warning: Hostinfo_Daemonize: Lock held on PID path [%s], error %u, not "
                 "daemonizing.\n",
                 pidPath_.c_str(), static_cast<unsigned>(EWOULDBLOCK)),
            log);
  EXPECT_EQ(first + "\n", ReadFile(pidPath_));

  kill(std::stoi(first), SIGKILL);
  bool started = false;
  for (int i = 0; i < 1000 && !started; i++) {
    started = Start(HOSTINFO_DAEMONIZE_LOCKPID, pidPath_.c_str());
    if (!started) usleep(10000);
  }
  ASSERT_TRUE(started);
  EXPECT_NE(first, Report()["pid"]);
}

TEST_F(Daemonize, PidFileWithoutLockIsOnlyWritten) {
  ASSERT_TRUE(Start(0, pidPath_.c_str(), {}, true));
  auto report = Report();
  EXPECT_EQ("0=/dev/null 1=/dev/null 2=/dev/null ", report["files"]);
  EXPECT_EQ(report["pid"] + "\n", ReadFile(pidPath_));
  const Fd file(open(pidPath_.c_str(), O_RDONLY));
  EXPECT_EQ(0, flock(file.Get(), LOCK_EX | LOCK_NB));
  struct stat info;
  ASSERT_EQ(0, fstat(file.Get(), &info));
  EXPECT_EQ(0644U, info.st_mode & 07777U);
  kill(std::stoi(report["pid"]), SIGKILL);
}

TEST_F(Daemonize, TellsWhyExecFailed) {
  const std::string plain = dir_.Write("plain", "no program");
  const struct {
    std::string path;
    int error;
  } rows[] = {{dir_.Path("missing"), ENOENT}, {plain, EACCES}, {plain + "/x", ENOTDIR}};
  for (const auto &row : rows) {
    for (const bool ignoreChildren : {false, true}) {
      signal(SIGCHLD, ignoreChildren ? SIG_IGN : SIG_DFL);
      const char *const argv[] = {"x", nullptr};
      const std::string log = WithoutStamps(CaptureOutput([&] {
        EXPECT_FALSE(Hostinfo_Daemonize(row.path.c_str(), argv, 0, pidPath_.c_str(), nullptr, 0));
        EXPECT_EQ(row.error, errno) << row.path;
      }));
      EXPECT_EQ(Text("Warning: Hostinfo_Daemonize: Child could not exec %s, read 4, error %u.\n",
                     row.path.c_str(), static_cast<unsigned>(row.error)),
                log);
      EXPECT_FALSE(fs::exists(pidPath_));
      signal(SIGCHLD, SIG_DFL);
    }
  }
}

TEST_F(Daemonize, RefusesWhatItCannotPrepare) {
  const char *const argv[] = {"x", nullptr};
  const char *const badArgv[] = {"x", "\xff", nullptr};
  const std::string badPidPath = dir_.Path("missing") + "/pid";
  const struct {
    const char *path;
    const char *const *argv;
    std::string pidPath;
    int error;
    std::string text;
  } rows[] = {
      {"a\xc3", argv, pidPath_, EINVAL, "Couldn't convert path [a\xc3] to default encoding.\n"},
      {"/x", badArgv, pidPath_, EINVAL, "Couldn't convert arguments to default encoding.\n"},
      {"/x", argv, badPidPath, ENOENT,
       Text("Couldn't open PID path [%s], error %d.\n", badPidPath.c_str(), ENOENT)},
  };
  for (const auto &row : rows) {
    const std::string log = WithoutStamps(CaptureOutput([&] {
      EXPECT_FALSE(Hostinfo_Daemonize(row.path, row.argv, 0, row.pidPath.c_str(), nullptr, 0));
      EXPECT_EQ(row.error, errno);
    }));
    EXPECT_EQ("Warning: Hostinfo_Daemonize: " + row.text, log);
    EXPECT_FALSE(fs::exists(pidPath_));
  }
}

TEST_F(Daemonize, ReportsForksThatFail) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can take a user id without other processes";
  // The process limit holds for a user id.  Nobody has these, not even another run of this test; a
  // container's range of ids may end at 65535.
  const auto user = static_cast<uid_t>(30000 + getpid() % 30000);
  const auto startWithLimit = [&](rlim_t processes) {
    return RunInChild([&] {
      const rlimit limit = {processes, processes};
      if (setresuid(user, user, user) != 0 || setrlimit(RLIMIT_NPROC, &limit) != 0) _exit(3);
      _exit(Start(0) ? 0 : errno);
    });
  };
  const ChildResult none = startWithLimit(1);
  EXPECT_EQ(EAGAIN, none.exitStatus);
  EXPECT_EQ(Text("Warning: Hostinfo_Daemonize: Couldn't fork first child, error %d.\n", EAGAIN),
            WithoutStamps(none.output));
  const ChildResult one = startWithLimit(2);
  EXPECT_EQ(EINVAL, one.exitStatus);
  const std::string log = WithoutStamps(one.output);
  EXPECT_TRUE(log.starts_with(
      Text("Warning: Hostinfo_Daemonize: Couldn't fork second child, error %d.\n", EAGAIN)))
      << log;
  EXPECT_TRUE(log.ends_with(" exited with error 1.\n")) << log;
}

}  // namespace

int main(int argc, char *argv[]) {
  if (argc >= 3 && std::string(argv[1]) == "--daemon") return DaemonMain(argv[2], argc > 3);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
