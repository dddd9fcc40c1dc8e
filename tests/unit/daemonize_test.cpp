// daemonize_test.cpp -- what a daemon inherits, and what its starter learns of its start.
//
// The daemon is a shell that writes what it finds about itself to a file.  What an opener's daemon
// inherits is tested as installed, in tests/system/caller_test.cpp; failing calls also in
// tests/system/faults_test.cpp.  Linked with the wraps of sysFault.h, --wrap=close_range,
// --wrap=getdents64 and --wrap=setsid.

#include <sys/file.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <climits>
#include <fstream>

#include "lib/public/hostinfo.h"
#include "tests/support/sysFault.h"
#include "tests/support/test.h"

namespace {

bool closeRangeRefused = false;
int emptyLists = 0;  // as many of the next directories are read as empty
bool setsidKills = false;

// And allows no descriptor from `limit` on.
void CloseStandardDescriptors(rlim_t limit) {
  for (const int number : {0, 1, 2}) close(number);
  const rlimit both = {limit, limit};
  setrlimit(RLIMIT_NOFILE, &both);
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

  bool StartLocked() { return Start("/bin/sh", HOSTINFO_DAEMONIZE_LOCKPID, {}, "linger"); }
};

// However the host closes descriptors: by ranges; by the list in /proc; by the limit, when /proc is an
// empty folder; or by both, when the list is empty at first.
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
        "flags:\t0100000 flags:\t0100001 flags:\t0100001  0=/dev/null 1=/dev/null 2=/dev/null 17=" +
        kept + " 300=" + kept;
    if (lists == INT_MAX) expected += " 400=" + kept;
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

TEST_F(Daemonize, FlagsKeepDirectorySessionAndStandardDescriptorsAndEndTheStarter) {
  const int flags =
      HOSTINFO_DAEMONIZE_NOCHDIR | HOSTINFO_DAEMONIZE_NOCLOSE | HOSTINFO_DAEMONIZE_EXIT;
  EXPECT_EQ(0, RunInChild([&] { (void)Start("/bin/sh", flags); }).exitStatus);
  AwaitReport();
  EXPECT_TRUE(folder_ == fs::current_path() && session_ == getsid(0)) << folder_;
  EXPECT_EQ(std::string::npos, files_.find("1=/dev/null")) << files_;
}

// The first starter's PID file gets a number that /dev/null replaces in the daemon, unless it is moved.
TEST_F(Daemonize, PidFileIsALockWhileTheDaemonLives) {
  dir_.Write("pid", "a much longer text of an earlier daemon\n");
  const ChildResult starter = RunInChild([&] {
    CloseStandardDescriptors(64);
    _exit(StartLocked() ? 0 : errno);
  });
  ASSERT_EQ(0, starter.exitStatus);
  AwaitReport();
  const std::string records = CaptureOutput([&] {
    EXPECT_FALSE(StartLocked());
    EXPECT_EQ(EWOULDBLOCK, errno);
  });
  EXPECT_EQ("Warning: Hostinfo_Daemonize: Lock held on PID path [" + pidPath_ + "], error " +
                std::to_string(EWOULDBLOCK) + ", not daemonizing.\n",
            WithoutStamps(records));
  // Nor does a starter remove it that has no room for descriptors above 2.
  const ChildResult cramped = RunInChild([&] {
    CloseStandardDescriptors(3);
    _exit(StartLocked() ? 0 : errno);
  });
  EXPECT_EQ(EWOULDBLOCK, cramped.exitStatus);
  EXPECT_EQ(std::to_string(pid_) + "\n", ReadFile(pidPath_));
  kill(pid_, SIGKILL);
}

// Nobody reads the log any more, and files are limited to `room` bytes.
void AllowToWrite(rlim_t room) {
  int ends[2];
  if (pipe(ends) != 0 || dup2(ends[1], STDOUT_FILENO) < 0 || close(ends[0]) != 0) _exit(1);
  const rlimit limit = {room, room};
  setrlimit(RLIMIT_FSIZE, &limit);
  signal(SIGPIPE, SIG_IGN);
}

// One call fails, or with `error` 0 the process is killed before it.
void FailOnce(const char *call, int error) {
  static const SysFault once(call, 1, error, [=] {
    if (error == 0) raise(SIGKILL);
  });
}

TEST_F(Daemonize, TellsWhyItCannotAndLeavesNoPidFile) {
  const auto notExec = [](int error) {
    return "Child could not exec /missing/x, read 4, error " + std::to_string(error) + ".\n";
  };
  const auto hookFails = [&](int error) {
    return "Couldn't prepare for exec of /missing/x, error " + std::to_string(error) + ".\n" +
           notExec(error);
  };
  const auto pidFile = [&](const std::string &step) {
    return "Couldn't " + step + " path [" + pidPath_ + "], error 5.\n" + notExec(EIO);
  };
  const std::string killed = "Child N exited with signal 9.\n",
                    dead = "Child died before it could exec /missing/x.\n";
  const struct {
    void (*prepare)();
    int error;
    std::string records;
    const char *program = "/missing/x", *argument = nullptr;
  } rows[] = {
      {[] {}, ENOENT, "Couldn't exec /missing/x, error 2.\n" + notExec(ENOENT)},
      {[] {}, EINVAL, "Couldn't convert path [a\xc3] to default encoding.\n", "a\xc3"},
      {[] {}, EINVAL, "Couldn't convert arguments to default encoding.\n", "/x", "\xff"},
      {[] { Hostinfo_SetPreExecHook([] { return errno = EIDRM, false; }); }, EIDRM,
       hookFails(EIDRM)},
      {[] { Hostinfo_SetPreExecHook([] { return errno = 0, false; }); }, EINVAL, hookFails(EINVAL)},
      {[] { Hostinfo_SetPreExecHook([] { return FailOnce("write", EIO), true; }); }, EINVAL,
       "Couldn't write to parent pipe: 5, original error: 0.\n" + dead},
      {[] { setsidKills = true; }, EINVAL, killed},
      // The first child is reaped elsewhere, when the caller is about to wait for it.
      {[] { static const SysFault f("close", 1, 0, [] { alarm(60), wait(nullptr); }); }, ENOENT,
       "Couldn't exec /missing/x, error 2.\n" + notExec(ENOENT)},
      {[] { FailOnce("write", EIO); }, EIO, pidFile("write PID to")},
      {[] { FailOnce("fsync", EIO); }, EIO, pidFile("flush PID to")},
      {[] { FailOnce("fsync", 0); }, EINVAL, dead},
      {[] { AllowToWrite(RLIM_INFINITY); }, ENOENT, ""},
      {[] { AllowToWrite(0); }, EFBIG, ""},
      {[] { AllowToWrite(1); }, ENOSPC, ""},
      {[] { CloseStandardDescriptors(3); }, EMFILE, ""},
  };
  for (const auto &row : rows) {
    const ChildResult starter = RunInChild([&] {
      signal(SIGCHLD, SIG_IGN);  // which must not keep the first child's status from the caller
      row.prepare();
      const int flags = setsidKills ? 0 : HOSTINFO_DAEMONIZE_NOCLOSE;
      const int error = Start(row.program, flags, {}, row.argument) ? 0 : errno;
      _exit(signal(SIGCHLD, SIG_DFL) == SIG_IGN ? error : -1);
    });
    EXPECT_EQ(row.error, starter.exitStatus) << row.records;
    static const std::regex who("Warning: Hostinfo_Daemonize: "), child("Child \\d+");
    const std::string records = std::regex_replace(WithoutStamps(starter.output), who, "");
    EXPECT_EQ(row.records, std::regex_replace(records, child, "Child N"));
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
