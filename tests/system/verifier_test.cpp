// verifier_test.cpp -- the unprivileged process that reads seals and property lists: what it cannot do,
// what it keeps, and that its death is never taken for a yes.

#include <grp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <fstream>
#include <iterator>

#include "platform/codeSignature.h"
#include "platform/linux/seal/sealJail.h"
#include "tests/support/product.h"

namespace {
bool nobodyAnswers = false;
}  // namespace

extern "C" int __real_poll(pollfd *fds, nfds_t count, int timeout);
extern "C" int __wrap_poll(pollfd *fds, nfds_t count, int timeout);
int __wrap_poll(pollfd *fds, nfds_t count, int timeout) {
  return nobodyAnswers ? 0 : __real_poll(fds, count, timeout);
}

namespace {

const std::string kKext = kBundleLibrary + "/kexts/zioplug.kext";
const std::string kKextIdentifier = "com.zephrin.kext.zioplug";

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

PlatformBundleIdentifier Identify() {
  return Platform_BundleIdentifier("", Platform_OpenSignedItem(kKext.c_str()).Get());
}

// The children of this process.
std::vector<pid_t> Children() {
  std::ifstream list("/proc/thread-self/children");
  return {std::istream_iterator<pid_t>(list), {}};
}

void Signal(int signal) {
  ASSERT_EQ(1U, Children().size());
  kill(Children()[0], signal);
}

// ---- what it may do -----------------------------------------------------------------------------

TEST_F(Verifier, ACallThatIsNotForReadingEndsIt) {
  const std::pair<const char *, void (*)()> kRows[] = {
      {"open", [] { open("/dev/null", O_WRONLY | O_CLOEXEC); }},
      {"create", [] { open("/run", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600); }},
      {"socket", [] { socket(AF_UNIX, SOCK_STREAM, 0); }},
      {"execve", [] { execl("/bin/true", "true", nullptr); }},
      {"kill", [] { kill(getppid(), 0); }},
      {"code", [] { mmap(nullptr, 1, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0); }},
      {"set flags", [] { fcntl(0, F_SETFL, O_NONBLOCK); }},
  };
  for (const uid_t user : {uid_t{0}, kUser}) {
    const auto inJail = [user](void (*act)()) {
      return RunInChild([&] {
        if (user != 0) BecomeUser(user);
        if (SealJailEnter()) act();
      });
    };
    const auto look = [] { _exit(Fd(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) ? 0 : 1); };
    EXPECT_EQ(0, inJail(look).exitStatus);
    for (const auto &[name, act] : kRows) EXPECT_EQ(SIGSYS, inJail(act).signal) << name;
  }
}

TEST_F(Verifier, ItIsLeftWithNothingButReading) {
  // It must not inherit these.
  const Fd mine(open("/", O_RDONLY));
  const gid_t group = 4711;
  ASSERT_EQ(0, setgroups(1, &group));
  ASSERT_EQ(0, Judge(kBundleDaemon).failure);
  ASSERT_EQ(0, setgroups(0, nullptr));
  ASSERT_EQ(1U, Children().size());
  const std::string process = "/proc/" + std::to_string(Children()[0]);
  const std::string status = ReadFile(process + "/status");
  // The capability is CAP_DAC_READ_SEARCH.
  for (const std::string line :
       {"Uid:\t65534\t65534\t65534\t65534", "Gid:\t65534\t65534\t65534\t65534", "Groups:\t ",
        "CapInh:\t0000000000000000", "CapPrm:\t0000000000000004", "CapEff:\t0000000000000004",
        "CapBnd:\t0000000000000000", "CapAmb:\t0000000000000000", "NoNewPrivs:\t1",
        "Seccomp:\t2"}) {
    EXPECT_EQ(1U, Count(status, "\n" + line + "\n")) << line << status;
  }
  EXPECT_EQ("", ReadFile(process + "/environ"));
  const std::map<int, std::string> files = {{0, "socket"}, {1, "/dev/null"}, {2, "/dev/null"}};
  EXPECT_EQ(files, FilesOf(Children()[0]));
  struct stat info;
  EXPECT_EQ(0, stat((process + "/environ").c_str(), &info));
  EXPECT_EQ(0U, info.st_uid);  // root's, so no other process of its user can read it
  // Its image cannot be changed.
  const Fd image(open((process + "/exe").c_str(), O_RDONLY));
  EXPECT_EQ(F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE,
            fcntl(image.Get(), F_GET_SEALS));
}

// ---- its answers --------------------------------------------------------------------------------

// 0, or 7 with an obstacle.
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
}

// Under a lease, opening the file blocks or fails until the lease is given up.
TEST_F(Verifier, WhatCannotBeReadIsToldApartFromWhatIsNotValid) {
  signal(SIGIO, SIG_IGN);
  const Fd list(open((kKext + "/Contents/Info.plist").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(0, fcntl(list.Get(), F_SETLEASE, F_WRLCK));
  EXPECT_EQ(EAGAIN, Judge(kKext, kKextIdentifier).error);
  const PlatformBundleIdentifier found = Identify();
  EXPECT_EQ(4, found.failure);
  EXPECT_TRUE(found.error == EAGAIN && found.obstacle != nullptr && found.text == nullptr);
  fcntl(list.Get(), F_SETLEASE, F_UNLCK);
  ExpectYesOrObstacle(true, Judge(kKext, kKextIdentifier));
}

TEST_F(Verifier, NoCallerMakesItSayYes) {
  Shell(R"(cp -a "$daemon" /run/changed; echo >>/run/changed)");
  std::vector<std::pair<__rlimit_resource_t, rlim_t>> rows = {
      {RLIMIT_NPROC, 0},       {RLIMIT_CORE, 0},  {RLIMIT_CPU, 0},
      {RLIMIT_FSIZE, 1 << 20}, {RLIMIT_STACK, 0}, {RLIMIT_DATA, 0}};
  for (rlim_t n = 3; n < 16; n++) rows.emplace_back(RLIMIT_NOFILE, n);
  int yes = 0, obstacles = 0;
  for (const auto &row : rows) {
    const ChildResult result = RunInChild([&] {
      const rlimit limit = {row.second, row.second};
      signal(SIGCHLD, SIG_IGN);
      signal(SIGXFSZ, SIG_IGN);
      if (row.first == RLIMIT_NPROC) BecomeUser(kUser);
      const Fd changed = Platform_OpenSignedItem("/run/changed");
      const Fd valid = Platform_OpenSignedItem(kBundleDaemon.c_str());
      setrlimit(row.first, &limit);
      const char *const name = kDaemonName.c_str();
      if (Platform_VerifyCodeSignature("", changed.Get(), name).failure != 7) _exit(3);
      const PlatformSignature found = Platform_VerifyCodeSignature("", valid.Get(), name);
      _exit(found.failure == 0 ? 0 : found.failure == 7 && found.obstacle != nullptr ? 1 : 4);
    });
    EXPECT_TRUE(result.exitStatus == 0 || result.exitStatus == 1 || result.signal != 0)
        << result.exitStatus << ": limit " << row.first << " " << row.second;
    yes += result.exitStatus == 0 ? 1 : 0;
    obstacles += result.exitStatus == 1 ? 1 : 0;
  }
  EXPECT_LT(0, yes);
  EXPECT_LT(1, obstacles);
}

}  // namespace
