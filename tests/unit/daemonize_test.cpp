// daemonize_test.cpp -- what a daemon inherits, and what its starter learns of its start.
//
// The daemon is a shell that writes what it finds about itself to a file.  What an opener's daemon
// inherits is tested as installed, in tests/system/caller_test.cpp; failing calls also in
// tests/system/faults_test.cpp.  Linked with the wraps of sysFault.h, --wrap=close_range,
// --wrap=getdents64 and --wrap=setsid.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "fd.h"
#include "hostinfo.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"
#include "tests/support/sysFault.h"

namespace {

namespace fs = std::filesystem;

bool closeRangeRefused = false;
int emptyLists = 0;  // as many of the next directories are read as empty
bool setsidKills = false;

const std::string kWho = "Warning: Hostinfo_Daemonize: ";
const std::string kDead = kWho + "Child died before it could exec /missing/x.\n";

std::string CouldNotExec(const std::string &program, int error) {
  return kWho + "Child could not exec " + program + ", read 4, error " + std::to_string(error) +
         ".\n";
}

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

// However the host closes descriptors: by ranges, by those that /proc lists, by the limit where /proc
// is an empty folder, or, while there is no list at first, by both.
TEST_F(Daemonize, InheritsTheKeptDescriptorsAndNothingElse) {
  const std::string kept = dir_.Write("kept", "");
  for (const int lists : {-1, 0, INT_MAX, 1}) {
    SCOPED_TRACE(lists);
    const ChildResult starter = RunInChild([&] {
      // Frees 6 to 9 for the start's own descriptors, which the daemon must not get.
      close_range(6, UINT_MAX, 0);
      const Fd file(open(kept.c_str(), O_RDWR));
      for (const int number : {5, 17, 18, 300, 400}) dup2(file.Get(), number);
      fcntl(18, F_SETFD, FD_CLOEXEC);
      Hostinfo_SetPreExecHook([] { return fcntl(18, F_GETFD) == FD_CLOEXEC; });
      const rlimit low = {64, 4096};
      setrlimit(RLIMIT_NOFILE, &low);  // 300 and 400 stay open
      // More than any program has, so that it does not get in the way of a sanitizer.
      const rlimit space = {rlim_t{1} << 47, RLIM_INFINITY};
      setrlimit(RLIMIT_AS, &space);
      closeRangeRefused = lists >= 0;
      emptyLists = lists;
      _exit(Start("/bin/sh", 0, {300, 18, 17, -1, INT_MAX, 17, 6, 7, 8, 9}, "linger") ? 0 : 1);
    });
    ASSERT_EQ(0, starter.exitStatus) << starter.output;
    AwaitReport();
    std::string expected =
        "flags:\t0100000 flags:\t0100001 flags:\t0100001  0=/dev/null 1=/dev/null 2=/dev/null";
    for (const char *number : {"17", "300", "400"}) {
      if (*number != '4' || lists == INT_MAX)
        expected.append(" ").append(number).append("=").append(kept);
    }
    EXPECT_EQ(expected, files_);
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
  // Nor does a starter remove it that has no room for descriptors above 2.
  const ChildResult starter = RunInChild([&] {
    for (const int number : {0, 1, 2}) close(number);
    const rlimit none = {STDERR_FILENO + 1, STDERR_FILENO + 1};
    setrlimit(RLIMIT_NOFILE, &none);
    _exit(start() ? 0 : errno);
  });
  EXPECT_EQ(EWOULDBLOCK, starter.exitStatus);
  AwaitReport();
  EXPECT_EQ(std::to_string(pid_) + "\n", ReadFile(pidPath_));
  kill(pid_, SIGKILL);
}

TEST_F(Daemonize, TellsWhyItCannotAndLeavesNoPidFile) {
  const std::string plain = dir_.Write("plain", "no program");
  const char *const badArgv[] = {"x", "\xff", nullptr};
  EXPECT_EQ(CouldNotExec(plain, EACCES), Failure(EACCES, [&] { return Start(plain.c_str(), 0); }));
  EXPECT_EQ(kWho + "Couldn't convert path [a\xc3] to default encoding.\n",
            Failure(EINVAL, [&] { return Start("a\xc3", 0); }));
  EXPECT_EQ(kWho + "Couldn't convert arguments to default encoding.\n", Failure(EINVAL, [&] {
              return Hostinfo_Daemonize("/x", badArgv, 0, pidPath_.c_str(), nullptr, 0);
            }));
  EXPECT_FALSE(fs::exists(pidPath_));
}

TEST_F(Daemonize, DoesNotExecWhenTheHookFailsOrTheCallerCannotBeTold) {
  const auto failure = [&](int error, HostinfoPreExecHook *hook) {
    Hostinfo_SetPreExecHook(hook);
    std::string records = Failure(error, [&] { return Start("/missing/x", 0); });
    Hostinfo_SetPreExecHook(nullptr);
    return records;
  };
  EXPECT_EQ(CouldNotExec("/missing/x", EIDRM), failure(EIDRM, [] { return errno = EIDRM, false; }));
  EXPECT_EQ(CouldNotExec("/missing/x", EINVAL), failure(EINVAL, [] { return errno = 0, false; }));
  EXPECT_EQ(kDead, failure(EINVAL, [] {
              static const SysFault report("write", 1, EIO);
              return true;
            }));
}

TEST_F(Daemonize, TellsWhatFailsInItsChildren) {
  const auto pidFile = [&](const std::string &step) {
    return kWho + "Couldn't " + step + " path [" + pidPath_ + "], error 5.\n" +
           CouldNotExec("/missing/x", EIO);
  };
  const struct {
    std::string call;
    int error;  // 0: the child is killed
    std::string records;
  } rows[] = {{"setsid", 0, kWho + "Child N exited with signal 9.\n"},
              {"write", EIO, pidFile("write PID to")},
              {"fsync", EIO, pidFile("flush PID to")},
              {"fsync", 0, kDead}};
  signal(SIGCHLD, SIG_IGN);  // which must not keep the first child's status from the caller
  for (const auto &row : rows) {
    setsidKills = row.call == "setsid";
    const SysFault fault(row.call, 1, row.error, [&] {
      if (row.error == 0) raise(SIGKILL);
    });
    const int flags = setsidKills ? 0 : HOSTINFO_DAEMONIZE_NOCLOSE;
    const std::string records =
        Failure(row.error == 0 ? EINVAL : row.error, [&] { return Start("/missing/x", flags); });
    EXPECT_EQ(row.records, std::regex_replace(records, std::regex("Child \\d+"), "Child N"));
    EXPECT_FALSE(fs::exists(pidPath_));
  }
  setsidKills = false;
  EXPECT_EQ(SIG_IGN, signal(SIGCHLD, SIG_DFL));
}

// Nobody reads the log any more, and the PID file may have only so many bytes.
TEST_F(Daemonize, TellsThatItCannotWhenWritingRaisesASignal) {
  for (const auto &[room, error] : {std::pair{RLIM_INFINITY, ENOENT}, {0, EFBIG}, {1, ENOSPC}}) {
    const ChildResult starter = RunInChild([limit = rlimit{room, room}, this] {
      int ends[2];
      if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0 || close(ends[0]) != 0) _exit(1);
      setrlimit(RLIMIT_FSIZE, &limit);
      signal(SIGPIPE, SIG_IGN);
      _exit(Start("/missing/x", HOSTINFO_DAEMONIZE_NOCLOSE) ? 0 : errno);
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

ssize_t __real_getdents64(int fd, void *buffer, size_t size);
ssize_t __wrap_getdents64(int fd, void *buffer, size_t size) {
  return emptyLists-- > 0 ? 0 : __real_getdents64(fd, buffer, size);
}

pid_t __real_setsid();
pid_t __wrap_setsid() {
  if (setsidKills) raise(SIGKILL);
  return __real_setsid();
}
}
