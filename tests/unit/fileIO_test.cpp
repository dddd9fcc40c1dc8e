// fileIO_test.cpp -- open files: what each open does, whole transfers, vectors, and failures.

#include "fileIO.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "fd.h"
#include "lib/file/fileIOInt.h"
#include "tests/support/capture.h"
#include "tests/support/sandboxSkip.h"
#include "tests/support/scratchDir.h"
#include "tests/support/sysFault.h"

namespace {

constexpr uint32_t kReadWrite = FILEIO_ACCESS_READ | FILEIO_ACCESS_WRITE;
constexpr uid_t kUser = 12345;

// An open file, closed at the end of the scope.
struct Opened {
  FileIODescriptor fd;
  FileIOResult result;
  int error;

  Opened(const std::string &path, uint32_t access, FileIOOpenAction action = FILEIO_OPEN,
         int mode = 0600)
      : result(FileIOCreate(&fd, path.c_str(), access, action, mode)), error(errno) {}
  Opened(const Opened &) = delete;
  Opened &operator=(const Opened &) = delete;
  ~Opened() {
    if (FileIO_IsValid(&fd)) FileIO_Close(&fd);
  }
};

int OpenFds() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

std::string LogOf(const std::function<void()> &body) {
  return WithoutStamps(CaptureOutput(body));
}

std::string Record(const std::string &call, const std::string &path, int error) {
  return "FILE:" + call + " error on " + path + ": " + strerror(error) + "\n";
}

TEST(FileIO, UnknownResultsAreLoggedAndTheReservedOneIsFatal) {
  EXPECT_EQ("FileIO_MsgError: bad code 99\n", LogOf([] {
              EXPECT_STREQ("@&!*@*@(msg.fileio.unknown)Unknown error",
                           FileIO_MsgError(static_cast<FileIOResult>(99)));
            }));
  EXPECT_EQ("Panic: NOT_IMPLEMENTED lib/file/fileIO:150\n",
            FatalText([] { static_cast<void>(FileIO_MsgError(FILEIO_RESERVED)); }));
}

TEST(FileIO, ActionsCreateAndEmptyAsTheySay) {
  constexpr std::pair<FileIOResult, FileIOResult> kMissingAndThere[] = {
      {FILEIO_FILE_NOT_FOUND, FILEIO_SUCCESS},
      {FILEIO_FILE_NOT_FOUND, FILEIO_SUCCESS},
      {FILEIO_SUCCESS, FILEIO_SUCCESS},
      {FILEIO_SUCCESS, FILEIO_OPEN_ERROR_EXIST},
      {FILEIO_SUCCESS, FILEIO_SUCCESS}};
  // Under a lock, the file is emptied by other means.
  for (const uint32_t access : {kReadWrite, kReadWrite | FILEIO_FLAG_EXLOCK}) {
    for (int i = FILEIO_OPEN; i <= FILEIO_OPEN_CREATE_EMPTY; i++) {
      const auto action = static_cast<FileIOOpenAction>(i);
      const ScratchDir dir;
      const std::string there = dir.Write("there", "content");
      EXPECT_EQ(kMissingAndThere[i].first, Opened(dir.Path("new"), access, action).result) << i;
      EXPECT_EQ(kMissingAndThere[i].second, Opened(there, access, action).result) << i;
      const bool empties = action == FILEIO_OPEN_EMPTY || action == FILEIO_OPEN_CREATE_EMPTY;
      EXPECT_EQ(empties ? "" : "content", ReadFile(there)) << i;
    }
  }
}

TEST(FileIO, FlagsOfAnOpen) {
  const ScratchDir dir;
  const std::string file = dir.Write("file", "content");
  const std::string link = dir.Path("link");
  const std::string fifo = dir.Path("fifo");
  ASSERT_EQ(0, symlink("file", link.c_str()));
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  struct Row {
    std::string path;
    uint32_t access;
    FileIOOpenAction action;
    int error;  // 0 for success
  };
  for (const Row &row : {
           Row{link, FILEIO_ACCESS_READ, FILEIO_OPEN, 0},
           Row{link, FILEIO_ACCESS_READ | FILEIO_FLAG_NOFOLLOW, FILEIO_OPEN, ELOOP},
           Row{fifo, FILEIO_ACCESS_READ | FILEIO_FLAG_NONBLOCK, FILEIO_OPEN, 0},
           Row{fifo, FILEIO_ACCESS_READ | FILEIO_FLAG_NONBLOCK | FILEIO_FLAG_SYNC, FILEIO_OPEN, 0},
           Row{fifo, FILEIO_ACCESS_WRITE | FILEIO_FLAG_NONBLOCK, FILEIO_OPEN, ENXIO},
           Row{file, kReadWrite | FILEIO_FLAG_EXCLUSIVE_READ, FILEIO_OPEN_CREATE, 0},
           Row{file, kReadWrite | FILEIO_FLAG_EXCLUSIVE_READ | FILEIO_FLAG_EXCLUSIVE_WRITE,
               FILEIO_OPEN_CREATE, EEXIST},
           Row{file, FILEIO_ACCESS_READ | FILEIO_FLAG_PRIVILEGED, FILEIO_OPEN_CREATE, EACCES},
           Row{file, FILEIO_ACCESS_READ | FILEIO_FLAG_PRIVILEGED, FILEIO_OPEN_EMPTY, EACCES},
           Row{file, FILEIO_FLAG_LOCK_MANDATORY, FILEIO_OPEN_CREATE_EMPTY, ENOTSUP},
           Row{dir.Path(std::string(300, 'x')), FILEIO_ACCESS_READ, FILEIO_OPEN, ENAMETOOLONG},
       }) {
    int error = 0;
    const std::string log = LogOf([&] {
      const Opened opened(row.path, row.access, row.action);
      if (opened.result == FILEIO_SUCCESS) {
        EXPECT_NE(0, fcntl(opened.fd.posix, F_GETFD) & FD_CLOEXEC);
      } else {
        EXPECT_EQ(-1, opened.fd.posix);
        EXPECT_EQ(nullptr, opened.fd.fileName);
        error = opened.error;
        EXPECT_EQ(error == ENOTSUP ? FILEIO_LOCK_FAILED : FileIOResultOfErrno(error),
                  opened.result);
      }
    });
    EXPECT_EQ(row.error, error) << row.path << row.access;
    const bool told = error == ELOOP || error == ENXIO;  // those without a code of their own
    EXPECT_EQ(told ? Record("open", row.path, error) : "", log);
  }
  EXPECT_EQ("content", ReadFile(file));
  FileIODescriptor fd;
  EXPECT_EQ(FILEIO_ERROR, FileIO_Open(&fd, nullptr, FILEIO_ACCESS_READ, FILEIO_OPEN));
  EXPECT_EQ(EFAULT, errno);
}

TEST(FileIO, ADescriptorTellsHowItWasOpened) {
  const ScratchDir dir;
  dir.Write("file", "content");
  for (const uint32_t access : {uint32_t{FILEIO_ACCESS_READ}, kReadWrite | FILEIO_FLAG_SYNC,
                                FILEIO_ACCESS_WRITE | FILEIO_FLAG_APPEND}) {
    const Opened opened(dir.Path("file"), access);
    FileIODescriptor again = FileIO_FromPosix(dup(opened.fd.posix));
    EXPECT_EQ(access, again.flags);
    EXPECT_EQ(FILEIO_SUCCESS, FileIO_Close(&again));
    EXPECT_EQ(FILEIO_ERROR, FileIO_Close(&again));
    EXPECT_EQ(EBADF, errno);
  }
}

TEST(FileIO, PrivilegedOpensReachWhatTheUserMayNot) {
  if (geteuid() != 0) SKIP_FOR_WANT_OF("root");
  const ScratchDir dir;
  const std::string secret = dir.Write("secret", "secret");
  chmod(dir.Path().c_str(), 0755);
  chmod(secret.c_str(), 0600);
  const ChildResult child = RunInChild([&] {
    if (seteuid(kUser) != 0) _exit(3);
    if (Opened(secret, FILEIO_ACCESS_READ).result != FILEIO_NO_PERMISSION) _exit(4);
    constexpr uint32_t kPrivileged = FILEIO_ACCESS_READ | FILEIO_FLAG_PRIVILEGED;
    if (Opened(secret, kPrivileged).result != FILEIO_SUCCESS || geteuid() != kUser) _exit(5);
    if (Opened(dir.Path("no"), kPrivileged).error != ENOENT || geteuid() != kUser) _exit(6);
    _exit(0);
  });
  EXPECT_EQ(0, child.exitStatus) << child.output;
}

TEST(FileIO, LocksHoldAndReplacementsAreAskedForPrivilegedOpensOnly) {
  static std::string asked;
  constexpr uint32_t kTry = FILEIO_FLAG_EXLOCK | FILEIO_FLAG_NONBLOCK;
  const ScratchDir dir;
  const std::string file = dir.Write("file", "content");
  FileIO_SetPrivilegedOpen([](const char *path, int flags) {
    asked += path;
    return open(path, flags);
  });
  const Opened holder(file, FILEIO_ACCESS_READ | FILEIO_FLAG_EXLOCK);
  EXPECT_EQ("", asked);
  LogOf([&] {
    EXPECT_EQ(EAGAIN, Opened(file, kReadWrite | kTry, FILEIO_OPEN_CREATE_EMPTY).error);
    EXPECT_EQ(EAGAIN, Opened(file, FILEIO_FLAG_PRIVILEGED | kTry).error);
  });
  FileIO_SetPrivilegedOpen(nullptr);
  EXPECT_EQ(file, asked);
  EXPECT_EQ("content", ReadFile(file));  // it is emptied under the lock only
}

// ---- transfers -------------------------------------------------------------------------------

TEST(FileIO, TransfersAreWholeWhateverTheHostGives) {
  const ScratchDir dir;
  Opened small(dir.Write("small", "0123456789"), FILEIO_ACCESS_READ);
  char buffer[8192] = "";
  size_t actual = 0;
  EXPECT_EQ(FILEIO_READ_ERROR_EOF, FileIO_Read(&small.fd, buffer, sizeof buffer, &actual));
  EXPECT_EQ("0123456789", std::string(buffer, actual));
  EXPECT_EQ(FILEIO_SUCCESS, FileIO_Read(&small.fd, buffer, 0, &actual));
  EXPECT_EQ(0u, FatalText([&] {
                  (void)FileIO_Read(&small.fd, buffer, 1u << 31, nullptr);
                }).find("Panic: VERIFY lib/file/fileIO:"));
  EXPECT_EQ(0u, FatalText([&] {
                  (void)FileIO_Write(&small.fd, buffer, 1u << 31, nullptr);
                }).find("Panic: VERIFY lib/file/fileIO:"));

  // A pipe, which gives pieces; each end is interrupted once.
  int ends[2];
  ASSERT_EQ(0, pipe(ends));
  FileIODescriptor reader = FileIO_FromPosix(ends[0]);
  FileIODescriptor writer = FileIO_FromPosix(ends[1]);
  const std::string sent(1'000'000, 'x');
  for (const char *call : {"read", "write"}) {
    const SysFault fault(call, 1, EINTR);
    std::thread thread([&] {
      EXPECT_EQ(FILEIO_SUCCESS, FileIO_Write(&writer, sent.data(), sent.size(), nullptr));
    });
    std::string got(sent.size(), 0);
    EXPECT_EQ(FILEIO_SUCCESS, FileIO_Read(&reader, got.data(), got.size(), &actual));
    thread.join();
    EXPECT_TRUE(sent == got && fault.Fired()) << call;
  }
  FileIO_Close(&writer);
  FileIO_Close(&reader);
}

// A file may grow to 100 bytes: what comes at the limit is a short write, then an error.
TEST(FileIO, WritesThatEndEarly) {
  const ScratchDir dir;
  const ChildResult child = RunInChild([&] {
    const rlimit limit = {100, 100};
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    char data[128] = "";
    const iovec parts[] = {{data, 64}, {data, 64}};
    size_t actual = 0;
    Opened file(dir.Path("file"), FILEIO_ACCESS_WRITE, FILEIO_OPEN_CREATE);
    const auto ended = [&](FileIOResult expected, FileIOResult result, int error, size_t size) {
      return result == expected && errno == error && actual == size &&
             lseek(file.fd.posix, 0, 0) == 0;
    };
    const bool right =
        ended(FILEIO_WRITE_ERROR_FBIG, FileIO_Write(&file.fd, data, 128, &actual), EFBIG, 100) &&
        ended(FILEIO_WRITE_ERROR_NOSPC, FileIO_Writev(&file.fd, parts, 2, 128, &actual), ENOSPC,
              100) &&
        ended(FILEIO_WRITE_ERROR_FBIG, FileIOPwritevCoalesced(&file.fd, parts, 2, 128, 50, &actual),
              EFBIG, 50);
    _exit(right ? 0 : 1);
  });
  EXPECT_EQ(0, child.exitStatus);
}

// ---- vectors ---------------------------------------------------------------------------------

std::map<std::string, int64_t> stored;

bool ReadStored(const char *key, int64_t *value) {
  const auto at = stored.find(key);
  if (at != stored.end()) *value = at->second;
  return at != stored.end();
}

std::vector<iovec> Vector(std::string *data, const std::vector<size_t> &lengths) {
  std::vector<iovec> entries;
  char *at = data->data();
  for (const size_t length : lengths) {
    entries.push_back({at, length});
    at += length;
  }
  return entries;
}

// Writes a vector in two ways and reads it back, a piece of the file missing in the end.
void RoundTrip(const std::vector<size_t> &lengths, uint32_t flags, std::mt19937 *random) {
  const ScratchDir dir;
  std::string data(std::accumulate(lengths.begin(), lengths.end(), size_t{0}), 0);
  for (char &c : data) c = static_cast<char>((*random)());
  const std::vector<iovec> from = Vector(&data, lengths);
  const int count = static_cast<int>(from.size());
  Opened file(dir.Path("file"), kReadWrite | flags, FILEIO_OPEN_CREATE);
  size_t actual = 0;
  // A total that is not the sum.
  EXPECT_EQ(FILEIO_ERROR, FileIO_Writev(&file.fd, from.data(), count, data.size() + 1, &actual));
  EXPECT_TRUE(errno == EINVAL && actual == data.size());
  lseek(file.fd.posix, 0, SEEK_SET);
  ASSERT_EQ(FILEIO_SUCCESS, FileIO_Writev(&file.fd, from.data(), count, data.size(), &actual));
  ASSERT_EQ(data.size(), actual);
  ASSERT_EQ(FILEIO_SUCCESS,
            FileIOPwritevCoalesced(&file.fd, from.data(), count, data.size(), 5, &actual));
  ASSERT_TRUE(data.substr(0, 5) + data == ReadFile(dir.Path("file")));

  const size_t left = data.empty() ? 0 : (*random)() % data.size();
  lseek(file.fd.posix, -static_cast<off_t>(left), SEEK_END);
  std::string got(data.size(), '#');
  const std::vector<iovec> to = Vector(&got, lengths);
  EXPECT_EQ(data.empty() ? FILEIO_SUCCESS : FILEIO_READ_ERROR_EOF,
            FileIO_Readv(&file.fd, to.data(), count, got.size(), &actual));
  ASSERT_EQ(left, actual);
  EXPECT_TRUE(data.substr(data.size() - left) + std::string(data.size() - left, '#') == got);
}

TEST(FileVector, ArrivesWholeWithAnySettings) {
  for (const std::map<std::string, int64_t> &settings :
       {std::map<std::string, int64_t>{},
        {{"filePosix.coalesce.enable", 0}},
        {{"filePosix.coalesce.aligned", 1}, {"filePosix.coalesce.count", 1}},
        {{"filePosix.coalesce.size", 10}}}) {
    // The settings are read once in a process.
    const ChildResult child = RunInChild([&] {
      stored = settings;
      FileIO_SetConfigStore(ReadStored);
      std::mt19937 random(1);
      for (const int count : {0, 1, 2, 6, 40, 1024, 2500}) {
        std::vector<size_t> lengths(static_cast<size_t>(count));
        for (size_t &length : lengths) length = random() % 3 == 0 ? 0 : random() % 300;
        RoundTrip(lengths, 0, &random);
        RoundTrip(lengths, FILEIO_FLAG_UNBUFFERED, &random);
      }
      _exit(HasFailure() ? 1 : 0);
    });
    EXPECT_EQ(0, child.exitStatus) << child.output;
  }
}

// 2000 entries are two calls by themselves, and one through a buffer.
TEST(FileVector, SmallEntriesGoInOneCall) {
  for (const auto &[size, calls] : {std::pair{16383, 1}, {16384, 2}}) {
    std::string data(static_cast<size_t>(size), 'x');
    std::vector<iovec> entries(2000, {data.data(), data.size()});
    for (const int nth : {calls, calls + 1}) {
      FileIODescriptor null = FileIO_FromPosix(open("/dev/null", O_WRONLY));
      const SysFault fault("writev", nth, EIO);
      EXPECT_EQ(nth == calls ? FILEIO_ERROR : FILEIO_SUCCESS,
                FileIO_Writev(&null, entries.data(), 2000, data.size() * 2000, nullptr));
      FileIO_Close(&null);
    }
  }
}

TEST(AlignedPool, KeepsAFewBuffersForTheNext) {
  for (const size_t size : {size_t{1}, size_t{65537}, (size_t{1} << 20) + 1}) {
    const auto useMany = [size] {
      std::vector<FileIOAlignedBuffer> buffers;
      for (int i = 0; i < 8; i++) {
        buffers.push_back(FileIOAlignedAlloc(size));
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(buffers.back().get()) % 4096);
        memset(buffers.back().get(), i, size);
      }
    };
    std::thread other(useMany);
    useMany();
    other.join();
    const char *const last = FileIOAlignedAlloc(size).get();
    EXPECT_TRUE(size > 1 << 20 || last == FileIOAlignedAlloc(size).get()) << size;
  }
}

// ---- replacement and failures ------------------------------------------------------------------

TEST(FileIO, AReplacedFileIsTheOldOneOrTheWholeNewOne) {
  const ScratchDir dir;
  const std::string path = dir.Write("file", "old");
  const std::string freshPath = dir.Path("fresh");
  for (const char *call : {"fsync", "rename", "none"}) {
    Opened current(path, FILEIO_ACCESS_READ);
    Opened fresh(freshPath, kReadWrite, FILEIO_OPEN_CREATE_EMPTY);
    ASSERT_EQ(FILEIO_SUCCESS, FileIO_Write(&fresh.fd, "new", 3, nullptr));
    const SysFault fault(call, 1, EIO);
    FileIOResult result = FILEIO_SUCCESS;
    const std::string log = LogOf([&] { result = FileIO_Replace(&current.fd, &fresh.fd); });
    EXPECT_EQ(fault.Fired() ? Record(call, freshPath, EIO) : "", log);
    EXPECT_EQ(fault.Fired() ? FILEIO_ERROR : FILEIO_SUCCESS, result);
    EXPECT_EQ(fault.Fired() ? "old" : "new", ReadFile(path));
    EXPECT_EQ(fault.Fired() ? "new" : "", ReadFile(freshPath));
    EXPECT_EQ(fault.Fired(), FileIO_IsValid(&fresh.fd));
    EXPECT_EQ(path, current.fd.fileName);
    EXPECT_EQ(fault.Fired() ? -1 : 3, pwrite(current.fd.posix, "NEW", 3, 0));
  }
  EXPECT_EQ("NEW", ReadFile(path));
}

TEST(FileIO, EachFailingCallIsToldAndNothingIsHeld) {
  const ScratchDir dir;
  const std::string path = dir.Path("file");
  const int before = OpenFds();
  const auto failure = [&](const char *call) {
    FileIODescriptor fd;
    FileIOResult result = FILEIO_SUCCESS;
    const std::string log = LogOf([&] {
      const SysFault fault(call, 1, EIO);
      constexpr uint32_t kUnlink = FILEIO_FLAG_UNBUFFERED | FILEIO_FLAG_UNLINK_AFTER_OPEN;
      result = FileIO_Open(&fd, path.c_str(), kReadWrite | kUnlink, FILEIO_OPEN_CREATE_SAFE);
      if (result == FILEIO_SUCCESS) result = FileIO_CloseAndUnlink(&fd);
      EXPECT_EQ(EIO, errno) << call;
    });
    EXPECT_EQ(FILEIO_ERROR, result);
    EXPECT_FALSE(FileIO_IsValid(&fd));
    EXPECT_EQ(before, OpenFds()) << call;
    unlink(path.c_str());
    return log;
  };
  EXPECT_EQ(Record("open", path, EIO), failure("open"));
  EXPECT_EQ(Record("unlink", path, EIO), failure("unlink"));
  EXPECT_EQ("", failure("close"));
  EXPECT_EQ("", failure("readlink"));
}

}  // namespace

// What macOS's code asks of the host; compiled with fcntl by this name, which fails from the
// fourth call on.
static std::vector<int> fcntlCommands;
extern "C" int fakeFcntl(int fd, int command, ...);
extern "C" int fakeFcntl(int, int command, ...) {
  fcntlCommands.push_back(command);
  return fcntlCommands.size() < 4 ? 0 : -1;
}
int DarwinSetUncached(int fd, bool synchronous);

TEST(UncachedDarwin, SetsTheSwitchesInTurn) {
  constexpr int kNoCache = 48;
  constexpr int kNoDirect = 62;
  EXPECT_EQ(0, DarwinSetUncached(7, true));
  EXPECT_EQ(0, DarwinSetUncached(7, false));
  EXPECT_EQ(-1, DarwinSetUncached(7, false));
  EXPECT_EQ((std::vector<int>{kNoCache, kNoCache, kNoDirect, kNoCache}), fcntlCommands);
}
