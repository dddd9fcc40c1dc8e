// verifier_test.cpp -- the process that reads seals and property lists: what it may not do, what it
// is left with, and that its end is never taken for a yes.

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <sstream>

#include "platform/codeSignature.h"
#include "platform/linux/sealJail.h"
#include "tests/support/product.h"
#include "tests/support/scratchDir.h"

namespace {
bool nobodyAnswers = false;
}  // namespace

extern "C" int __real_poll(pollfd *fds, nfds_t count, int timeout);
extern "C" int __wrap_poll(pollfd *fds, nfds_t count, int timeout);
int __wrap_poll(pollfd *fds, nfds_t count, int timeout) {
  return nobodyAnswers ? 0 : __real_poll(fds, count, timeout);
}

namespace {

namespace fs = std::filesystem;

const std::string kKext = kBundleLibrary + "/kexts/zioplug.kext";

// What becomes of a child that does this: its status, or 128 and its signal.
int StatusOf(const std::function<void()> &act) {
  const pid_t pid = fork();
  if (pid == 0) {
    act();
    _exit(0);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

class Verifier : public ProductTest {
  void TearDown() override {
    Platform_EndCodeSignatureChecks();
    nobodyAnswers = false;
    ProductTest::TearDown();
  }
};

PlatformSignature Judge(const std::string &path, const std::string &identifier = kDaemonName) {
  const Fd item = Platform_OpenSignedItem(path.c_str());
  return Platform_VerifyCodeSignature(path.c_str(), item.Get(), identifier.c_str());
}

// The processes that this one has started.
std::vector<std::string> Children() {
  std::vector<std::string> found;
  const std::string parent = "\nPPid:\t" + std::to_string(getpid()) + "\n";
  for (const fs::directory_entry &entry : fs::directory_iterator("/proc")) {
    const std::string status = ReadFile(entry.path() / "status");
    if (status.find(parent) != status.npos) found.push_back(entry.path());
  }
  return found;
}

void Signal(int signal) {
  ASSERT_EQ(1U, Children().size());
  kill(std::stoi(fs::path(Children()[0]).filename()), signal);
}

// ---- what it may do -----------------------------------------------------------------------------

TEST_F(Verifier, ACallThatIsNotForReadingEndsIt) {
  const std::pair<const char *, void (*)()> kRows[] = {
      {"open", [] { open("/dev/null", O_WRONLY | O_CLOEXEC); }},
      {"create", [] { open("/run", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600); }},
      {"socket", [] { socket(AF_UNIX, SOCK_STREAM, 0); }},
      {"execve", [] { execl("/bin/true", "true", nullptr); }},
      {"fork", [] { vfork() == 0 ? _exit(0) : void(); }},
      {"ptrace", [] { ptrace(PTRACE_ATTACH, getppid(), nullptr, nullptr); }},
      {"kill", [] { kill(getppid(), 0); }},
      {"code", [] { mmap(nullptr, 1, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0); }},
      {"unlink", [] { unlink("/nothing"); }},
      {"set flags", [] { fcntl(0, F_SETFL, O_NONBLOCK); }},
  };
  for (const bool root : {true, false}) {
    const auto enter = [root] {
      if (!root) BecomeUser(kUser);
      if (!SealJailEnter()) _exit(99);
    };
    EXPECT_EQ(0, StatusOf([&] {
                enter();
                if (!Fd(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC))) _exit(1);
              }));
    for (const auto &[name, act] : kRows) {
      EXPECT_EQ(128 + SIGSYS, StatusOf([&, call = act] { enter(), call(); })) << name;
    }
  }
}

TEST_F(Verifier, ItIsLeftWithNothingButReading) {
  // What it must not inherit.
  const Fd mine(open("/", O_RDONLY));
  const gid_t group = 4711;
  ASSERT_EQ(0, setgroups(1, &group));
  ASSERT_EQ(0, Judge(kBundleDaemon).failure);
  ASSERT_EQ(0, setgroups(0, nullptr));
  ASSERT_EQ(1U, Children().size());
  const std::string process = Children()[0];
  std::map<std::string, std::string> fields;
  std::istringstream status(ReadFile(process + "/status"));
  for (std::string line; std::getline(status, line);) {
    fields[line.substr(0, line.find(':'))] = line.substr(line.find(':') + 1);
  }
  const std::string nobody = "\t65534\t65534\t65534\t65534", none = "\t0000000000000000";
  EXPECT_EQ(nobody, fields["Uid"]);
  EXPECT_EQ(nobody, fields["Gid"]);
  EXPECT_EQ(std::string::npos, fields["Groups"].find_first_not_of("\t "));
  for (const char *set : {"CapInh", "CapBnd", "CapAmb"}) EXPECT_EQ(none, fields[set]) << set;
  // CAP_DAC_READ_SEARCH
  for (const char *set : {"CapPrm", "CapEff"}) EXPECT_EQ("\t0000000000000004", fields[set]);
  EXPECT_EQ("\t1", fields["NoNewPrivs"]);
  EXPECT_EQ("\t2", fields["Seccomp"]);
  EXPECT_EQ("", ReadFile(process + "/environ"));
  std::map<std::string, std::string> open;
  for (const fs::directory_entry &entry : fs::directory_iterator(process + "/fd")) {
    open[entry.path().filename()] = fs::read_symlink(entry).native().substr(0, 8);
  }
  EXPECT_EQ(
      (std::map<std::string, std::string>{{"0", "socket:["}, {"1", "/dev/nul"}, {"2", "/dev/nul"}}),
      open);
  struct stat info;
  EXPECT_EQ(0, stat((process + "/environ").c_str(), &info));
  EXPECT_EQ(0U, info.st_uid);  // nobody of its own user may look into it
  // Its image is the one that was written.
  Fd image(::open((process + "/exe").c_str(), O_RDONLY));
  EXPECT_EQ(F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE,
            fcntl(image.Get(), F_GET_SEALS));
}

// ---- its answers --------------------------------------------------------------------------------

TEST_F(Verifier, SaysHowMuchIsSigned) {
  Shell(
      "ln -s nothing kexts/zioplug.kext/link; mkdir kexts/zioplug.kext/empty; "
      "sign com.zephrin.kext.zioplug kexts/zioplug.kext");
  const PlatformSignature file = Judge(kBundleDaemon);
  EXPECT_EQ(0, file.failure);
  EXPECT_EQ(fs::file_size(kBundleDaemon), file.extent.bytes);
  EXPECT_EQ(0U, file.extent.entries);
  const PlatformSignature bundle = Judge(kKext, "com.zephrin.kext.zioplug");
  uint64_t bytes = 0, entries = 0;
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator(kKext)) {
    entries++;
    if (entry.is_regular_file() && !entry.is_symlink()) bytes += entry.file_size();
  }
  EXPECT_EQ(0, bundle.failure);
  EXPECT_EQ(bytes, bundle.extent.bytes);
  EXPECT_EQ(entries, bundle.extent.entries);
}

// 0 with the right extent, or 7 with an obstacle.
void ExpectYesOrObstacle(bool yes, const PlatformSignature &found) {
  EXPECT_EQ(yes ? 0 : 7, found.failure);
  EXPECT_EQ(yes, found.obstacle == nullptr);
}

TEST_F(Verifier, ItsEndIsNoYes) {
  ExpectYesOrObstacle(true, Judge(kBundleDaemon));
  Signal(SIGKILL);
  ExpectYesOrObstacle(false, Judge(kBundleDaemon));
  EXPECT_EQ(0U, Children().size());
  ExpectYesOrObstacle(false, Judge(kBundleDaemon));
  EXPECT_EQ(0U, Children().size());  // not started again
  Platform_EndCodeSignatureChecks();
  ExpectYesOrObstacle(true, Judge(kBundleDaemon));

  Signal(SIGSTOP);
  nobodyAnswers = true;
  const PlatformSignature late = Judge(kBundleDaemon);
  ExpectYesOrObstacle(false, late);
  EXPECT_EQ(ETIMEDOUT, late.error);
  EXPECT_EQ(0U, Children().size());
  nobodyAnswers = false;

  Platform_EndCodeSignatureChecks();
  const Fd kext = Platform_OpenSignedItem(kKext.c_str());
  EXPECT_EQ(0, Platform_BundleIdentifier("", kext.Get()).failure);
  Signal(SIGKILL);
  const PlatformBundleIdentifier found = Platform_BundleIdentifier("", kext.Get());
  EXPECT_EQ(4, found.failure);
  EXPECT_NE(nullptr, found.obstacle);
  EXPECT_EQ(nullptr, found.text);
}

// A lease: until it is given up, the file can only be opened by a process that waits for that.
TEST_F(Verifier, WhatCannotBeReadIsToldApartFromWhatIsNotValid) {
  signal(SIGIO, SIG_IGN);
  const Fd list(open((kKext + "/Contents/Info.plist").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(0, fcntl(list.Get(), F_SETLEASE, F_WRLCK));
  EXPECT_EQ(EAGAIN, Judge(kKext, "com.zephrin.kext.zioplug").error);
  const Fd kext = Platform_OpenSignedItem(kKext.c_str());
  const PlatformBundleIdentifier found = Platform_BundleIdentifier("", kext.Get());
  EXPECT_EQ(4, found.failure);
  EXPECT_EQ(EAGAIN, found.error);
  fcntl(list.Get(), F_SETLEASE, F_UNLCK);
  ExpectYesOrObstacle(true, Judge(kKext, "com.zephrin.kext.zioplug"));
}

TEST_F(Verifier, NoCallerMakesItSayYes) {
  Shell(R"(cp -a "$daemon" /run/changed; echo >>/run/changed)");
  struct Row {
    __rlimit_resource_t resource;
    rlim_t most;
    bool user;
  };
  std::vector<Row> rows = {{RLIMIT_NPROC, 0, true},
                           {RLIMIT_FSIZE, 1 << 20, false},
                           {RLIMIT_CPU, 0, false},
                           {RLIMIT_STACK, 0, false},
                           {RLIMIT_DATA, 0, false}};
  for (rlim_t n = 3; n < 16; n++) rows.push_back({RLIMIT_NOFILE, n, false});
  int obstacles = 0;
  for (const Row &row : rows) {
    const int status = StatusOf([&] {
      signal(SIGCHLD, SIG_IGN);
      signal(SIGXFSZ, SIG_IGN);
      if (row.user) BecomeUser(kUser);
      const Fd changed = Platform_OpenSignedItem("/run/changed");
      const Fd valid = Platform_OpenSignedItem(kBundleDaemon.c_str());
      const rlimit limit = {row.most, row.most};
      setrlimit(row.resource, &limit);
      const char *const name = kDaemonName.c_str();
      if (Platform_VerifyCodeSignature("", changed.Get(), name).failure != 7) _exit(3);
      const PlatformSignature found = Platform_VerifyCodeSignature("", valid.Get(), name);
      _exit(found.failure == 0 ? 0 : found.failure == 7 && found.obstacle != nullptr ? 1 : 4);
    });
    EXPECT_TRUE(status == 0 || status == 1 || status > 128)
        << status << ": limit " << row.resource << " " << row.most;
    if (status == 1) obstacles++;
  }
  EXPECT_LT(1, obstacles);
  EXPECT_EQ(0, StatusOf([] {
              signal(SIGCHLD, SIG_IGN);
              _exit(Judge(kBundleDaemon).failure);
            }));
}

}  // namespace
