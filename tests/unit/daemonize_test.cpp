// daemonize_test.cpp -- what a daemon inherits, and what its starter learns of its start.
//
// The daemon is a shell that writes what it finds about itself to a file.  What an opener's daemon
// inherits is tested as installed, in tests/system/caller_test.cpp; failing calls also in
// tests/system/faults_test.cpp.  Linked with the wraps of sysFault.h, --wrap=close_range and
// --wrap=setsid.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "fd.h"
#include "hostinfo.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"
#include "tests/support/sysFault.h"

namespace {

namespace fs = std::filesystem;

bool closeRangeRefused = false;
int setsidError = 0;  // or a signal that kills the caller, negative

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

// However the host closes descriptors: by ranges, by those that /proc lists, or, while there is no
// number for that list, first by the limit.
TEST_F(Daemonize, InheritsTheKeptDescriptorsAndNothingElse) {
  const std::string kept = dir_.Write("kept", "");
  for (const char *refused : {"", "close_range", "close_range, the list"}) {
    const ChildResult starter = RunInChild([&] {
      const Fd file(open(kept.c_str(), O_RDWR));
      for (const int number : {5, 17, 18, 300, 400}) dup2(file.Get(), number);
      fcntl(18, F_SETFD, FD_CLOEXEC);
      Hostinfo_SetPreExecHook([] { return fcntl(18, F_GETFD) == FD_CLOEXEC; });
      const rlimit low = {64, 4096};
      setrlimit(RLIMIT_NOFILE, &low);  // 300 and 400 stay open
      // More than any program has, so that it does not get in the way of a sanitizer.
      const rlimit space = {rlim_t{1} << 47, RLIM_INFINITY};
      setrlimit(RLIMIT_AS, &space);
      closeRangeRefused = *refused != '\0';
      // The first is that of the PID file.
      const SysFault fault("open", strchr(refused, ',') != nullptr ? 2 : INT_MAX, EMFILE);
      _exit(Start("/bin/sh", 0, {300, 18, 17, -1, INT_MAX, 17}, "linger") ? 0 : 1);
    });
    ASSERT_EQ(0, starter.exitStatus) << starter.output;
    AwaitReport();
    EXPECT_EQ(
        "flags:\t0100000 flags:\t0100001 flags:\t0100001  0=/dev/null 1=/dev/null 2=/dev/null 17=" +
            kept + " 300=" + kept,
        files_)
        << refused;
    EXPECT_TRUE(space_ == "unlimited" && folder_ == "/" && session_ != pid_ &&
                session_ != getsid(0));
    // Without its flag the PID file is no lock.
    EXPECT_EQ(std::to_string(pid_) + "\n", ReadFile(pidPath_));
    EXPECT_EQ(fs::perms{0644}, fs::status(pidPath_).permissions());
    EXPECT_EQ(0, flock(Fd(open(pidPath_.c_str(), O_RDONLY)).Get(), LOCK_EX | LOCK_NB));
    kill(pid_, SIGKILL);
  }
}

// The PID file and the pipe for reports must not be what /dev/null replaces in the daemon.
TEST_F(Daemonize, StartsFromAProcessWithoutStandardDescriptors) {
  for (const int error : {ENOENT, EMFILE, 0}) {
    const ChildResult starter = RunInChild([&] {
      for (const int number : {0, 1, 2}) close(number);
      const rlimit none = {STDERR_FILENO + 1, STDERR_FILENO + 1};
      if (error == EMFILE) setrlimit(RLIMIT_NOFILE, &none);
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
  // No daemon runs that the caller was not told of.
  Hostinfo_SetPreExecHook([] {
    static const SysFault report("write", 1, EIO);
    return true;
  });
  EXPECT_EQ("Warning: Hostinfo_Daemonize: Child died before it could exec /bin/sh.\n",
            Failure(EINVAL, [&] { return Start("/bin/sh", 0); }));
  Hostinfo_SetPreExecHook([] { return chdir("/proc") == 0; });
  EXPECT_TRUE(Start("/bin/sh", 0));
  AwaitReport();
  EXPECT_EQ("/proc", folder_);
  Hostinfo_SetPreExecHook(nullptr);
}

TEST_F(Daemonize, TellsWhatFailsInItsChildren) {
  const std::string who = "Warning: Hostinfo_Daemonize: ";
  const auto couldNot = [&](const std::string &step) {
    return who + "Couldn't " + step + " to path [" + pidPath_ + "], error 5.\n" + who +
           "Child could not exec /bin/sh, read 4, error 5.\n";
  };
  const struct {
    int setsid;
    const char *call;
    int error;  // 0: the child is killed
    std::string records;
  } rows[] = {
      {EPERM, "none", 0,
       who + "Couldn't create new session, error 1.\n" + who + "Child N exited with error 1.\n"},
      {-SIGKILL, "none", 0, who + "Child N exited with signal 9.\n"},
      {0, "write", EIO, couldNot("write PID")},
      {0, "fsync", EIO, couldNot("flush PID")},
      {0, "fsync", 0, who + "Child died before it could exec /bin/sh.\n"},
  };
  signal(SIGCHLD, SIG_IGN);  // which must not keep the first child's status from the caller
  for (const auto &row : rows) {
    setsidError = row.setsid;
    const SysFault fault(row.call, 1, row.error, [&] {
      if (row.error == 0) raise(SIGKILL);
    });
    const int flags = row.setsid == 0 ? HOSTINFO_DAEMONIZE_NOCLOSE : 0;
    const std::string records =
        Failure(row.error == 0 ? EINVAL : row.error, [&] { return Start("/bin/sh", flags); });
    EXPECT_EQ(row.records, std::regex_replace(records, std::regex("Child \\d+"), "Child N"));
    EXPECT_FALSE(fs::exists(pidPath_));
  }
  setsidError = 0;
  EXPECT_EQ(SIG_IGN, signal(SIGCHLD, SIG_DFL));
}

// Nobody reads the log any more; nothing may be written to files, neither log nor PID.
TEST_F(Daemonize, TellsThatItCannotWhenWritingRaisesASignal) {
  for (const int error : {ENOENT, EFBIG}) {
    const ChildResult starter = RunInChild([&] {
      int ends[2];
      const bool closed = pipe(ends) == 0 && close(ends[0]) == 0;
      if (error == ENOENT && (!closed || dup2(ends[1], STDOUT_FILENO) < 0)) _exit(1);
      const rlimit none = {0, 0};
      if (error == EFBIG) setrlimit(RLIMIT_FSIZE, &none);
      for (const int number : {SIGPIPE, SIGXFSZ}) signal(number, SIG_IGN);
      const char *const program = error == EFBIG ? "/bin/sh" : "/missing/x";
      _exit(Start(program, HOSTINFO_DAEMONIZE_NOCLOSE) ? 0 : errno);
    });
    EXPECT_EQ(error, starter.exitStatus);
    EXPECT_FALSE(fs::exists(pidPath_));
  }
}

}  // namespace

extern "C" {
int __real_close_range(unsigned first, unsigned last, int flags);
int __wrap_close_range(unsigned first, unsigned last, int flags) {
  if (!closeRangeRefused) return __real_close_range(first, last, flags);
  errno = ENOSYS;
  return -1;
}

pid_t __real_setsid();
pid_t __wrap_setsid() {
  if (setsidError == 0) return __real_setsid();
  if (setsidError < 0) raise(-setsidError);
  errno = setsidError;
  return -1;
}
}
