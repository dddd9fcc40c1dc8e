// platformDarwin_test.cpp -- small pieces of the macOS platform code, against fakes of its calls.

#include <copyfile.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <mach-o/dyld.h>
#include <net/if_dl.h>
#include <sched.h>
#include <sys/acl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/sysctl.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "heap.h"
#include "platform/decimalDigits.h"
#include "platform/files.h"
#include "platform/linkAddress.h"
#include "platform/process.h"
#include "platform/senderUser.h"

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
    // In a block of its own length, so that reading past the end is seen.
    const HeapArray<uint8_t> record = Heap_Array<uint8_t>(row.length);
    memcpy(record.get(), whole.data(), row.length);
    ifaddrs entry{};
    entry.ifa_addr = reinterpret_cast<sockaddr *>(record.get());
    PlatformLinkAddress address;
    EXPECT_TRUE(Platform_LinkAddress(entry, &address));
    EXPECT_EQ(row.expected, address) << int{row.length} << ' ' << int{row.nameLength};
  }
}

// ecvt and fcvt share their memory among all threads: whoever calls them alone and copies before
// letting go gets digits that nobody else writes over.

char shared[32];  // on purpose without a lock

char *Convert(const char *kind, double value, int *point) {
  if (value < 0) return nullptr;  // no memory
  *point = static_cast<int>(value);
  snprintf(shared, sizeof shared, "%s%d", kind, *point);
  sched_yield();
  return shared;
}

TEST(DecimalDigitsDarwin, ThreadsDoNotShareDigits) {
  int noPoint;
  EXPECT_EQ(nullptr, Platform_FixedDigits(-1, 6, &noPoint));  // and the lock was given back
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int n = i, point = -1; n < 2000; ++n) {
        ASSERT_EQ("f" + std::to_string(n), HeapStr(Platform_FixedDigits(n, 6, &point)).get());
        ASSERT_EQ("e" + std::to_string(point),
                  HeapStr(Platform_SignificantDigits(n, 6, &point)).get());
      }
    });
  }
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
  for (const auto &row : rows) {
    sourceSize = row.size;
    grownSize = row.grown;
    targetSize = 0;
    const bool ok = Platform_CopyFileWithMetadata(kSource, kTarget, row.limit);
    EXPECT_EQ(row.error, ok ? 0 : errno) << row.limit;
    EXPECT_EQ(row.most, targetSize) << row.limit;
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

// The soft limit may have been lowered below a descriptor that was open already; root's may be above
// the kernel's limit for everybody.

constexpr int kPerProcess = 300;

TEST(ProcessDarwin, DescriptorsAboveALoweredOrARaisedLimitAreClosed) {
  for (const bool lowered : {true, false}) {
    const pid_t child = fork();
    if (child == 0) {
      const int top = lowered ? kPerProcess - 1 : kPerProcess + 1;
      for (const int fd : {5, 6, kPerProcess - 2, top}) dup2(STDERR_FILENO, fd);
      const rlim_t limit = lowered ? 10 : kPerProcess + 2;
      const rlimit both = {limit, limit};
      setrlimit(RLIMIT_NOFILE, &both);
      const int keep[] = {kPerProcess - 2, 5};
      Platform_CloseDescriptorsExcept(keep, 2);
      std::string open;
      for (int fd = 0; fd <= top; fd++) {
        if (fcntl(fd, F_GETFD) != -1) open += std::to_string(fd) + " ";
      }
      _exit(open == "0 1 2 5 298 " ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status) << lowered;
  }
}

// A number without a process, which is no failure of the call, and a socket without a peer.

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
int fakeFstat(int fd, struct stat *status) noexcept {
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
