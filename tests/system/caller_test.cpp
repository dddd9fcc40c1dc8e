// caller_test.cpp -- the influence of the user who starts the opener: what the service inherits, what is
// removed before, and what that user cannot choose.

#include <sys/file.h>
#include <sys/resource.h>

#include <sstream>

#include "tests/support/peer.h"
#include "tests/support/product.h"

namespace {

using Caller = ProductTest;

// ---- what the service is started with ---------------------------------------------------------

constexpr struct {
  const char *name;
  uid_t user;
  void (*make)();
} kCallerStates[] = {
    // The hosts open closed ones for set-user-ID starts, but not if root starts the program.
    {"root, standard descriptors closed", 0, [] { close_range(0, 2, 0); }},
    {"signals blocked and ignored, umask 077", kUser,
     [] {
       umask(077);
       if (chdir("/tmp") != 0) _exit(126);
       sigset_t all;
       sigfillset(&all);
       sigprocmask(SIG_BLOCK, &all, nullptr);
       for (int number = 1; number < NSIG; number++) signal(number, SIG_IGN);
     }},
    // The user has a process already.  Root may start more nevertheless, but not the root of a user
    // namespace.
    {"no more processes", kUser,
     [] {
       if (ReadFile("/proc/self/uid_map").find("4294967295") == std::string::npos) return;
       if (fork() == 0) _exit(static_cast<int>(sleep(3)));
       rlimit limit;
       getrlimit(RLIMIT_NPROC, &limit);
       limit.rlim_cur = 0;
       setrlimit(RLIMIT_NPROC, &limit);
     }},
};

// What is removed is tested in opener_test.cpp.
const std::vector<std::string> kRemoved = {"f=() { :; }; reboot", "BASH_ENV=/x",
                                           "ENV=", "ENV=twin"};
const std::vector<std::string> kKept = {"PATH=/usr/bin:/bin", "a= () { :;}", "() {", "ENV",
                                        "EMPTY="};

// The report of probeDaemon for a service whose descriptors are `sock` and `status`.
std::string ExpectedReport(const std::string &sock, const std::string &status, uid_t user) {
  std::ostringstream text;
  text << "argument " << kStagedDaemon << "\nargument " << sock << "\nargument " << status
       << "\ndirectory /\nUmask:\t0022\nUid:\t" << user << "\t0\t0\t0\n"
       << "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\nterminal none\n"
       << "fd 0 /dev/null\nfd 1 /dev/null\nfd 2 /dev/null\n"
       << "fd " << sock << " socket\nfd " << status << " pipe\nenv " << OpenerLaunch().env[0]
       << "\n";
  for (const std::string &entry : kKept) text << "env " << entry << "\n";
  return text.str();
}

TEST_F(Caller, LeavesNothingToTheServiceButAnEnvironmentWithoutCode) {
  for (const auto &state : kCallerStates) {
    SCOPED_TRACE(state.name);
    Reset();
    InstallProbe();
    Launch launch = OpenerLaunch(FileWith(state.name), state.make);
    launch.user = state.user;
    launch.env.insert(launch.env.end(), kKept.begin(), kKept.end());
    launch.env.insert(launch.env.begin() + 3, kRemoved.begin(), kRemoved.end());
    EXPECT_EQ(kDelivered, OutcomeOf(launch));
    EXPECT_TRUE(ServiceRead(state.name));

    const auto services = Services();
    ASSERT_EQ(1U, services.size());
    // Neither the opener's session, which is the test's, nor the leader of its own.
    EXPECT_NE(getsid(0), getsid(services[0]));
    EXPECT_NE(services[0], getsid(services[0]));
    const std::string report = ReadFile(kProbeReport);
    std::string sock, status;
    std::istringstream(report.substr(report.find("argument ", 10))) >> sock >> sock >> status >>
        status;
    EXPECT_EQ(ExpectedReport(sock, status, state.user), report);
  }
}

// unsetenv cannot remove a variable whose name is empty.
TEST_F(Caller, AnEntryThatCannotBeRemovedEndsTheOpener) {
  Launch launch = OpenerLaunch(FileWith(""));
  launch.env.push_back("=() { :; }");
  EXPECT_EQ((Outcome{1, ""}), OutcomeOf(launch));
}

// A pipe without a reader, and a file beyond RLIMIT_FSIZE.
TEST_F(Caller, ALogThatCannotBeWrittenDoesNotEndTheOpener) {
  Pipe log;
  log.read.Reset();
  const auto writeIntoIt = [&] { dup2(log.write.Get(), STDOUT_FILENO); };
  const auto writeNothing = [] {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_FSIZE, &none);
  };
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("unheard"), writeIntoIt)));
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("unwritten"), writeNothing)));
  EXPECT_TRUE(ServiceRead("unheard") && ServiceRead("unwritten"));
}

// ---- signals --------------------------------------------------------------------------------

// A stopped opener would block all others, which wait for its lock.
TEST_F(Caller, CannotSignalAnOpenerThatOthersWaitFor) {
  const Fd listener = ListenAt(kSocketPath);
  Fd lock(open(kLockPath.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(0, flock(lock.Get(), LOCK_EX));
  Process opener(OpenerLaunch(FileWith("")));
  const std::string pid = std::to_string(opener.Pid());
  const auto isBlocked = [&](const std::string &signals) {
    return Count(ReadFile("/proc/" + pid + "/status"), "SigBlk:\t0000000000" + signals) == 1;
  };
  // SIGTSTP, SIGTTIN, SIGTTOU.
  EXPECT_TRUE(Eventually([&] { return isBlocked("380000"); }));
  ShellAsUser("! kill -STOP " + pid);
  lock.Reset();
  const Fd connection = Accept(listener);
  EXPECT_TRUE(Eventually([&] { return isBlocked("000000"); }));
  ShellAsUser("kill " + pid);
  EXPECT_EQ(128 + SIGTERM, opener.Wait());
}

// A pipe that nobody reads, with room for one record only.
Pipe AlmostFullPipe() {
  Pipe pipe;
  const int size = fcntl(pipe.write.Get(), F_SETPIPE_SZ, 4096);
  const std::string filling(static_cast<size_t>(size) - 60, 'x');
  EXPECT_EQ(static_cast<ssize_t>(filling.size()),
            write(pipe.write.Get(), filling.data(), filling.size()));
  return pipe;
}

TEST_F(Caller, BlocksNobodyElseByNotReadingTheLog) {
  // Once while it starts the service, once when choosing the side fails.
  for (const rlim_t descriptors : {rlim_t{1024}, rlim_t{6}}) {
    Reset();
    const Pipe log = AlmostFullPipe();
    Process first(OpenerLaunch(
        FileWith("first"),
        [&] {
          const rlimit limit = {descriptors, descriptors};
          dup2(log.write.Get(), STDOUT_FILENO);
          setrlimit(RLIMIT_NOFILE, &limit);
        },
        3));
    const std::string waits = "/proc/" + std::to_string(first.Pid()) + "/wchan";
    EXPECT_TRUE(
        Eventually([&] { return ReadFile(waits).find("pipe_write") != std::string::npos; }));
    EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith("second")))) << descriptors;
    ShellAsUser("kill -KILL " + std::to_string(first.Pid()));
    EXPECT_EQ(128 + SIGKILL, first.Wait());
    EXPECT_EQ(1U, Services().size());
  }
}

// ---- where the bundle is ----------------------------------------------------------------------

TEST_F(Caller, CannotMoveTheBundle) {
  // The bundle is the one that contains the opener, not the link to it.
  Shell(R"(mkdir -p /Library/Own.app/Contents/Library
           ln -s "$PWD/lumenClient-opener" /Library/Own.app/Contents/Library/opener)");
  Launch launch = OpenerLaunch(FileWith(""));
  launch.argv[0] = "/Library/Own.app/Contents/Library/opener";
  EXPECT_EQ(kDelivered, OutcomeOf(launch));
  StopServices();

  launch.argv[0] = "/Library/opener";
  Shell("install -m 4755 lumenClient-opener /Library/opener");
  EXPECT_EQ(
      (Outcome{1, "Warning: LocationGetRoot: sUpCount (3) is too large for /Library/opener\n"}),
      OutcomeOf(launch));
}

}  // namespace
