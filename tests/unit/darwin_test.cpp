// darwin_test.cpp -- the platform code for macOS against fakes of its system calls and frameworks: small
// abilities; normalisation, which also tests the code for Linux; and signatures: the calls made, the
// failure code of each step, that every object is released whatever fails, and what is vouched for.

#include <copyfile.h>
#include <ifaddrs.h>
#include <mach-o/dyld.h>
#include <net/if_dl.h>
#include <sched.h>
#include <sys/acl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/sysctl.h>
#include <sys/un.h>

#include <array>
#include <numeric>

#include "lib/public/codeset.h"
#include "lib/public/dynbuf.h"
#include "platform/codeSignature.h"
#include "platform/decimalDigits.h"
#include "platform/files.h"
#include "platform/linkAddress.h"
#include "platform/process.h"
#include "platform/senderUser.h"
#include "tests/support/darwin/frameworks.h"
#include "tests/support/test.h"

namespace {

// Records of any length.
TEST(LinkAddressDarwin, TakesWhatTheRecordHolds) {
  const struct {
    uint8_t length, nameLength, addressLength;
    PlatformLinkAddress expected;
  } rows[] = {
      {40, 15, 8, {1, 2, 3, 4, 5, 6}},  // longer than the declared structure, and a longer address
      {20, 3, 4, {1, 2, 3, 4, 0, 0}},   // a shorter address
      {14, 3, 6, {1, 2, 3, 0, 0, 0}},   // the record ends inside the address
      {9, 200, 6, {}},                  // ... inside the name
      {2, 3, 6, {}},                    // ... before the lengths
  };
  for (const auto &row : rows) {
    std::array<uint8_t, 256> whole{row.length, AF_LINK, 0, 0, 0, row.nameLength, row.addressLength};
    std::iota(whole.begin() + offsetof(sockaddr_dl, sdl_data) + row.nameLength, whole.end(), 1);
    // In a block of exactly its length, so that a sanitizer notices reads past the end.
    const HeapArray<uint8_t> record = Heap_Array<uint8_t>(row.length);
    memcpy(record.get(), whole.data(), row.length);
    ifaddrs entry{};
    entry.ifa_addr = reinterpret_cast<sockaddr *>(record.get());
    PlatformLinkAddress address;
    EXPECT_TRUE(Platform_LinkAddress(entry, &address));
    EXPECT_EQ(row.expected, address) << int{row.length} << ' ' << int{row.nameLength};
  }
}

// All threads share the buffer of ecvt and fcvt: the digits must be copied under the mutex.

char shared[32];  // on purpose without a lock

char *Convert(const char *kind, double value, int *point) {
  if (value < 0) return nullptr;  // no memory
  *point = static_cast<int>(value);
  snprintf(shared, sizeof shared, "%s%d", kind, *point);
  sched_yield();
  return shared;
}

TEST(DecimalDigitsDarwin, ThreadsDoNotShareDigits) {
  const auto convert = [](int n) {
    for (PlatformDecimal got; n < 2000; ++n) {
      const auto digitsOf = n % 2 == 0 ? Platform_FixedDigits : Platform_SignificantDigits;
      ASSERT_TRUE(digitsOf(n, 6, &got) && got.point == n);
      ASSERT_EQ("ef"[n % 2 == 0] + std::to_string(n), std::string(got.digits, got.count));
    }
  };
  PlatformDecimal none;
  EXPECT_FALSE(Platform_FixedDigits(-1, 6, &none));  // and the lock was given back
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(convert, i);
}

// A locked copy could not be made root's, nor be removed the next time; a compressed file without its
// flag is an empty one.

unsigned fileFlags;
int failure;  // of fchflags, acl_set_fd_np, fcopyfile's attributes; ENOMEM: of its state
int lists;

// fcopyfile copies a source that grows while it does so, in pieces of 100 bytes.
constexpr int kSource = 3, kTarget = 4;
off_t sourceSize, grownSize, targetSize;

TEST(FileCopyDarwin, IsNotLockedButStoredAsItsSource) {
  fileFlags = UF_IMMUTABLE | UF_APPEND | UF_COMPRESSED | SF_IMMUTABLE | SF_APPEND;
  EXPECT_TRUE(Platform_CopyFileWithMetadata(kSource, kTarget, 0));
  EXPECT_EQ(UF_COMPRESSED, fileFlags);
  fileFlags = UF_IMMUTABLE;
  failure = EPERM;
  EXPECT_FALSE(Platform_CopyFileWithMetadata(kSource, kTarget, 0));
  failure = 0;
}

TEST(FileCopyDarwin, EndsAtItsLimit) {
  const struct {
    off_t size, grown;
    uint64_t limit;
    int error;
    off_t most;  // that is written
  } rows[] = {
      {1000, 1000, 1000, 0, 1000},
      {1001, 1001, 1000, EFBIG, 0},
      {1000, 90'000, 1000, EFBIG, 1100},
      {1000, 1000, UINT64_MAX, 0, 1000},
      {0, 0, 0, 0, 0},
  };
  for (const auto &[size, grown, limit, error, most] : rows) {
    sourceSize = size, grownSize = grown, targetSize = 0;
    const bool ok = Platform_CopyFileWithMetadata(kSource, kTarget, limit);
    EXPECT_EQ(error, ok ? 0 : errno) << limit;
    EXPECT_EQ(most, targetSize) << limit;
  }
  sourceSize = grownSize = 0;
  // An error is the end, and its cause is told.
  for (const int error : {ENOSPC, ENOMEM}) {
    failure = error;
    EXPECT_TRUE(!Platform_CopyFileWithMetadata(kSource, kTarget, 0) && errno == error);
  }
  failure = 0;
}

TEST(FileCopyDarwin, AFileSystemWithoutAccessListsIsFine) {
  for (const int error : {0, ENOTSUP, EPERM}) {
    failure = error;
    EXPECT_EQ(error != EPERM, Platform_RemoveAccessList(4));
    EXPECT_TRUE(error != EPERM || errno == EPERM);
  }
  EXPECT_EQ(0, lists);
}

// The soft limit may have been lowered below an open descriptor; root's may be above the kernel's limit.

constexpr int kPerProcess = 300;

TEST(ProcessDarwin, DescriptorsAboveALoweredOrARaisedLimitAreClosed) {
  for (const bool lowered : {true, false}) {
    InChild([=] {
      const int top = lowered ? kPerProcess - 1 : kPerProcess + 1;
      for (const int fd : {5, 6, kPerProcess - 2, top}) dup2(STDERR_FILENO, fd);
      const rlim_t limit = lowered ? 10 : kPerProcess + 2;
      const rlimit both = {limit, limit};
      setrlimit(RLIMIT_NOFILE, &both);
      const int keep[] = {kPerProcess - 2, 5};
      EXPECT_TRUE(!Platform_EndWithParent(getppid()) && errno == ENOTSUP);
      Platform_CloseDescriptorsExcept(keep, 2);
      std::string open;
      for (int fd = 0; fd <= top; fd++) {
        if (fcntl(fd, F_GETFD) != -1) open += std::to_string(fd) + " ";
      }
      EXPECT_EQ("0 1 2 5 298 ", open) << lowered;
    });
  }
}

// A pid without a process, for which the call succeeds, and a socket without a peer.

pid_t peer = 300;

TEST(SenderUserDarwin, IsTheUserOfALiveProcess) {
  uid_t user = 0;
  EXPECT_TRUE(Platform_PrepareForSender(5) && Platform_SenderUser(5, &user));
  EXPECT_EQ(501U, user);
  for (const int number : {301, -1}) {
    peer = number;
    EXPECT_FALSE(Platform_SenderUser(5, &user));
    EXPECT_EQ(number < 0 ? ENOTCONN : ESRCH, errno);
  }
}

TEST(Normalize, GoesToBothFormsUnlessACallFailsAndLeaksNothing) {
  const std::string rows[][3] = {
      {"caf\xC3\xA9 cafe\xCC\x81", "caf\xC3\xA9 caf\xC3\xA9", "cafe\xCC\x81 cafe\xCC\x81"},
      {"\xEA\xB0\x81", "\xEA\xB0\x81", "\xE1\x84\x80\xE1\x85\xA1\xE1\x86\xA8"},  // Hangul
      {"a\xCC\x82\xCC\xA3", "\xE1\xBA\xAD", "a\xCC\xA3\xCC\x82"},                // marks in order
      {"\xF0\x9D\x85\x9E", "\xF0\x9D\x85\x97\xF0\x9D\x85\xA5", "\xF0\x9D\x85\x97\xF0\x9D\x85\xA5"},
  };
  const auto normalize = [](const std::string &text, bool precomposed) {
    ScopedDynBuf out;
    const bool ok = CodeSet_Utf8Normalize(text.c_str(), precomposed, &out);
    EXPECT_EQ(0, frameworks.liveObjects);
    return (ok ? "" : "failed ") + std::string(out.data, out.size);
  };
  for (const auto &[in, composed, decomposed] : rows) {
    EXPECT_EQ(composed, normalize(in, true));
    EXPECT_EQ(decomposed, normalize(in, false));
  }
  for (int nth = 1; nth <= 4; nth++) {
    frameworks = {.callsToFailure = nth};
    EXPECT_EQ("failed ", normalize("a", true));
  }
  frameworks = {};
  EXPECT_EQ("failed ", normalize("a\xC3", true));
}

// ---- signatures -------------------------------------------------------------------------------

PlatformSignature Verify(const std::string &path, const char *identifier = "Zephrin Services") {
  const Fd item = Platform_OpenSignedItem(path.c_str());
  return Platform_VerifyCodeSignature(path.c_str(), item.Get(), identifier);
}

TEST(CodeSignatureDarwin, TellsTheStepThatFailedAndReleasesAll) {
  const ScratchDir dir;
  const std::string path = dir.Write("item", "");
  // One number for each call that can fail, in order; creating code and requirement can fail in three ways.
  int nth = 0;
  for (const int step : {1, 2, 3, 3, 3, 5, 6, 6, 6, 7, 0}) {
    frameworks = {.callsToFailure = ++nth};
    EXPECT_EQ(step, Verify(path).failure) << nth;
    EXPECT_EQ(0, frameworks.liveObjects) << nth;
  }
  EXPECT_EQ(
      "code 0\n"
      "requirement identifier \"Zephrin Services\" and anchor apple generic and anchor trusted and "
      "cert leaf[subject.CN] = *\"Zephrin, Inc.\"* 0\n"
      "check 1\n",
      frameworks.securityCalls);
  // An identifier cannot change the requirement.
  for (const char *const identifier :
       {"a\" or anchor apple or identifier \"b", "a\\", "a\n", "\xC3\xA9"}) {
    frameworks = {};
    EXPECT_EQ(6, Verify(path, identifier).failure) << identifier;
    EXPECT_EQ("code 0\n", frameworks.securityCalls);
  }
}

// The item, $I, is a file of 5 bytes or a bundle; `act` runs during the check.
struct Exchange {
  bool bundle;
  const char *act;
  int failure;
};

constexpr Exchange kExchanges[] = {
    {false, "true", 0},
    {false, "mv $I $I.old; cp $I.old $I", 7},
    {false, "mv $I $I.old; ln -s $I.old $I", 7},
    {false, "rm $I", 7},
    {false, "printf 54321 >$I", 7},
    {false, "echo >>$I", 7},
    {true, "true", 0},
    {true, "mv $I $I.old; cp -r $I.old $I", 7},
    {true, "touch $I/more", 7},
};

TEST(CodeSignatureDarwin, VouchesForTheOpenItemAndItsExtent) {
  for (const Exchange &row : kExchanges) {
    const ScratchDir dir;
    const std::string item = dir.Path("item"), shell = "I='" + item + "'; ";
    const std::string make = row.bundle
                                 ? "mkdir -p $I/a/b; printf 123 >$I/a/x; printf 45 >$I/a/b/y;"
                                   "ln -s x $I/a/z; mkfifo $I/f"
                                 : "printf 12345 >$I";
    ASSERT_EQ(0, system((shell + make).c_str()));
    frameworks = {.atCheck = [&] {
      usleep(20'000);  // so that the times of change differ
      EXPECT_EQ(0, system((shell + row.act).c_str()));
    }};
    const PlatformSignature found = Verify(item);
    EXPECT_EQ(row.failure, found.failure) << row.act;
    EXPECT_EQ(row.failure == 0 ? 5U : 0U, found.extent.bytes) << row.act;
    EXPECT_EQ(row.failure == 0 && row.bundle ? 6U : 0U, found.extent.entries) << row.act;
  }
  frameworks = {};
}

TEST(CodeSignatureDarwin, OpensFilesAndDirectoriesAndNothingElse) {
  const ScratchDir dir;
  const std::string link = dir.Path("link"), fifo = dir.Path("fifo"), deep = dir.Path("deep");
  ASSERT_TRUE(symlink(".", link.c_str()) == 0 && mkfifo(fifo.c_str(), 0600) == 0);
  for (const auto &[path, error] :
       {std::pair{link, ELOOP}, {fifo, ENOTSUP}, {deep, ENOENT}, {"/dev/null", ENOTSUP}}) {
    EXPECT_TRUE(!Platform_OpenSignedItem(path.c_str()) && errno == error) << path;
    EXPECT_EQ(3, Verify(path).failure) << path;
  }
  // Deeper than any bundle.
  fs::path path = deep;
  for (int i = 0; i < 40; i++) path /= "d";
  fs::create_directories(path);
  const PlatformSignature found = Verify(deep);
  EXPECT_TRUE(found.failure == 7 && found.obstacle != nullptr && found.error == ELOOP);
}

TEST(CodeSignatureDarwin, BundlesNameThemselvesAndReleaseAll) {
  // Path, URL, bundle, identifier; then room for the text and the text itself.
  int nth = 0;
  for (const int step : {1, 2, 3, 4, 0, 0, 0}) {
    frameworks = {.callsToFailure = ++nth};
    const PlatformBundleIdentifier found = Platform_BundleIdentifier("/a/b.kext", 0);
    EXPECT_EQ(step, found.failure) << nth;
    EXPECT_STREQ(nth == 7 ? kFrameworksBundle : nullptr, found.text.get()) << nth;
    EXPECT_EQ(0, frameworks.liveObjects) << nth;
  }
  EXPECT_EQ(1, Platform_BundleIdentifier("/a/\xFF", 0).failure);
  EXPECT_EQ(3, Platform_BundleIdentifier("/a/b.kext", -1).failure);
  // A property list may have a number there.
  frameworks.oddIdentifier = true;
  EXPECT_EQ(4, Platform_BundleIdentifier("/a/b.kext", 0).failure);
  frameworks.oddIdentifier = false;
  frameworks.direct = "at hand";
  const PlatformBundleIdentifier found = Platform_BundleIdentifier("/a/b.kext", 0);
  EXPECT_STREQ("at hand", found.text.get());
  EXPECT_NE(frameworks.direct, found.text.get());
  frameworks = {};
}

// ---- the fakes --------------------------------------------------------------------------------

int Answer(int error) {
  errno = error;
  return error == 0 ? 0 : -1;
}

}  // namespace

struct _copyfile_state {
  copyfile_callback_t callback;
  void *context;
};
copyfile_state_t copyfile_state_alloc() {
  errno = ENOMEM;
  return failure == ENOMEM ? nullptr : new _copyfile_state();
}
int copyfile_state_free(copyfile_state_t state) {
  delete state;
  return Answer(EINTR);
}
int copyfile_state_get(copyfile_state_t, unsigned flag, void *to) {
  EXPECT_EQ(COPYFILE_STATE_COPIED, flag);
  *static_cast<off_t *>(to) = targetSize;
  return 0;
}
int copyfile_state_set(copyfile_state_t state, unsigned flag, const void *from) {
  if (flag == COPYFILE_STATE_STATUS_CTX) state->context = const_cast<void *>(from);
  if (flag == COPYFILE_STATE_STATUS_CB)
    state->callback = reinterpret_cast<copyfile_callback_t>(const_cast<void *>(from));
  return 0;
}
int fcopyfile(int from, int to, copyfile_state_t state, unsigned flags) {
  EXPECT_TRUE(from == kSource && to == kTarget && flags == (COPYFILE_ALL | COPYFILE_NOFOLLOW));
  const auto tell = [state](int what, int stage) {
    return state->callback(what, stage, state, nullptr, nullptr, state->context);
  };
  EXPECT_EQ(COPYFILE_CONTINUE, tell(COPYFILE_COPY_XATTR, COPYFILE_START));
  if (failure != 0 && fileFlags == 0) {
    EXPECT_EQ(COPYFILE_QUIT, tell(COPYFILE_COPY_XATTR, COPYFILE_ERR));
    return Answer(failure);
  }
  while (targetSize < grownSize) {
    targetSize = std::min(targetSize + 100, grownSize);
    if (tell(COPYFILE_COPY_DATA, COPYFILE_PROGRESS) == COPYFILE_QUIT) return Answer(ECANCELED);
  }
  return 0;
}
extern "C" int fakeFstat(int fd, struct stat *status) noexcept {
  *status = {};
  status->st_flags = fileFlags;
  status->st_size = fd == kSource ? sourceSize : targetSize;
  return 0;
}
int fchflags(int, unsigned flags) {
  fileFlags = flags;
  return Answer(failure);
}
acl_t acl_init(int) {
  return reinterpret_cast<acl_t>(&++lists);
}
int acl_free(void *) {
  lists--;
  return Answer(EINTR);
}
int acl_set_fd_np(int, acl_t, acl_type_t) {
  return Answer(failure);
}
extern "C" int fakeGetsockopt(int, int level, int option, void *value, socklen_t *) noexcept {
  EXPECT_TRUE(level == SOL_LOCAL && option == LOCAL_PEERPID);
  *static_cast<pid_t *>(value) = peer;
  return Answer(peer < 0 ? ENOTCONN : 0);
}
int sysctl(int *mib, unsigned, void *old, size_t *size, void *, size_t) {
  if (mib[1] == KERN_PROC) {
    EXPECT_TRUE(mib[2] == KERN_PROC_PID && mib[3] == peer);
    static_cast<kinfo_proc *>(old)->kp_eproc.e_pcred.p_ruid = 501;
    *size = peer == 300 ? sizeof(kinfo_proc) : 0;
    return 0;
  }
  EXPECT_TRUE(mib[0] == CTL_KERN && mib[1] == KERN_MAXFILESPERPROC);
  *static_cast<int *>(old) = kPerProcess;
  return 0;
}
int _NSGetExecutablePath(char *, uint32_t *) {
  return -1;
}

extern "C" {
char *fakeEcvt(double value, int, int *point, int *) noexcept {
  return Convert("e", value, point);
}
char *fakeFcvt(double value, int, int *point, int *) noexcept {
  return Convert("f", value, point);
}
}
