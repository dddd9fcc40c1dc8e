// fileIO_test.cpp -- open files: what each open does, whole transfers, vectors, and failures.

#include "fileIO.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "fd.h"
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

  Opened(const std::string &path, uint32_t access, FileIOOpenAction action = FILEIO_OPEN)
      : result(FileIO_Open(&fd, path.c_str(), access, action)), error(errno) {}
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

TEST(FileIO, ErrnosHaveCodesAndCodesHaveTexts) {
  struct Row {
    int code;
    int error;  // 0 for a code that no errno has
    const char *text;
  };
  for (const Row &row : {
           Row{0, 0, "(msg.fileio.success)Success"},
           Row{1, 0, "(msg.fileio.cancel)The operation was cancelled by the user"},
           Row{2, EPERM, "(msg.fileio.generic)Error"},
           Row{3, EEXIST, "(msg.fileio.exists)The file already exists"},
           Row{4, 0, "(msg.fileio.lock)Failed to lock the file"},
           Row{5, 0, "(msg.fileio.eof)Tried to read beyond the end of the file"},
           Row{6, ENOENT, "(msg.fileio.notfound)Could not find the file"},
           Row{7, EACCES, "(msg.fileio.noPerm)Insufficient permission to access the file"},
           Row{8, ENAMETOOLONG, "(msg.fileio.namelong)The file name is too long"},
           Row{9, EFBIG, "(msg.fileio.fBig)The file is too large"},
           Row{10, ENOSPC, "(msg.fileio.noSpc)There is no space left on the device"},
           Row{11, EDQUOT, "(msg.fileio.dQuot)There is no space left on the device"},
           Row{99, 0, "(msg.fileio.unknown)Unknown error"},
       }) {
    const auto result = static_cast<FileIOResult>(row.code);
    const std::string log =
        LogOf([&] { EXPECT_EQ(std::string("@&!*@*@") + row.text, FileIO_MsgError(result)); });
    EXPECT_EQ(row.code == 99 ? "FileIO_MsgError: bad code 99\n" : "", log);
    if (row.error == 0) continue;
    EXPECT_EQ(row.error == EPERM ? Record("open", "/", row.error) : "", LogOf([&] {
                const SysFault fault("open", 1, row.error);
                const Opened opened("/", FILEIO_ACCESS_READ);
                EXPECT_TRUE(opened.result == result && opened.error == row.error) << row.code;
              }));
  }
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
  ASSERT_TRUE(symlink("file", link.c_str()) == 0 && mkfifo(fifo.c_str(), 0600) == 0);
  constexpr uint32_t kRead = FILEIO_ACCESS_READ, kWrite = FILEIO_ACCESS_WRITE;
  constexpr uint32_t kExclusiveRead = FILEIO_FLAG_EXCLUSIVE_READ;
  struct Row {
    std::string path;
    uint32_t access;
    int action;
    int error;  // 0 for success
  };
  for (const Row &row : {
           Row{link, kRead, FILEIO_OPEN, 0},
           Row{link, kRead | FILEIO_FLAG_NOFOLLOW, FILEIO_OPEN, ELOOP},
           Row{fifo, kRead | FILEIO_FLAG_NONBLOCK | FILEIO_FLAG_SYNC, FILEIO_OPEN, 0},
           Row{fifo, kWrite | FILEIO_FLAG_NONBLOCK, FILEIO_OPEN, ENXIO},
           Row{file, kWrite | FILEIO_FLAG_APPEND, FILEIO_OPEN, 0},
           Row{file, kReadWrite | kExclusiveRead, FILEIO_OPEN_CREATE, 0},
           Row{file, kReadWrite | kExclusiveRead | FILEIO_FLAG_EXCLUSIVE_WRITE, FILEIO_OPEN_CREATE,
               EEXIST},
           Row{file, kRead | FILEIO_FLAG_PRIVILEGED, FILEIO_OPEN_CREATE, EACCES},
           Row{file, kRead | FILEIO_FLAG_PRIVILEGED, FILEIO_OPEN_EMPTY, EACCES},
           Row{file, FILEIO_FLAG_LOCK_MANDATORY, FILEIO_OPEN_CREATE_EMPTY, ENOTSUP},
           Row{file, kRead, FILEIO_OPEN_CREATE_EMPTY + 1, EINVAL},
       }) {
    LogOf([&] {
      Opened opened(row.path, row.access, static_cast<FileIOOpenAction>(row.action));
      EXPECT_EQ(row.error, opened.result == FILEIO_SUCCESS ? 0 : opened.error)
          << row.path << row.access;
      EXPECT_EQ(row.error == ENOTSUP, opened.result == FILEIO_LOCK_FAILED);
      EXPECT_EQ(row.error != 0, opened.fd.posix == -1 && opened.fd.fileName == nullptr);
      if (row.error != 0) return;
      EXPECT_NE(0, fcntl(opened.fd.posix, F_GETFD) & FD_CLOEXEC);
      // The descriptor tells the same.
      FileIODescriptor again = FileIO_FromPosix(dup(opened.fd.posix));
      EXPECT_EQ(row.access & (kReadWrite | FILEIO_FLAG_SYNC | FILEIO_FLAG_APPEND), again.flags);
      EXPECT_EQ(EFAULT, FileIO_Lock(&again, FILEIO_FLAG_LOCK_PORTABLE) == FILEIO_ERROR ? errno : 0);
      FileIO_Close(&again);
    });
  }
  EXPECT_EQ("content", ReadFile(file));
  FileIODescriptor fd;
  EXPECT_EQ(FILEIO_ERROR, FileIO_Open(&fd, nullptr, kRead, FILEIO_OPEN));
  EXPECT_EQ(EFAULT, errno);
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
  EXPECT_EQ(FILEIO_SUCCESS, FileIO_Read(&small.fd, buffer, 0, nullptr));
  const std::string fatal = FatalText(
      [&] { static_cast<void>(FileIO_Read(&small.fd, buffer, size_t{1} << 31, nullptr)); });
  EXPECT_EQ(0u, fatal.find("Panic: VERIFY lib/file/fileIO:"));

  // A pipe, which gives pieces; each end is interrupted once, and the writer then fails.
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
  fcntl(ends[1], F_SETFL, O_NONBLOCK);
  EXPECT_EQ(FILEIO_ERROR, FileIO_Write(&writer, sent.data(), sent.size(), &actual));
  EXPECT_TRUE(errno == EAGAIN && actual > 0 && actual < sent.size());
  FileIO_Close(&writer);
  FileIO_Close(&reader);
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
    EXPECT_EQ(fault.Fired() ? -1 : 3, pwrite(current.fd.posix, "NEW", 3, 0));
  }
  EXPECT_EQ("NEW", ReadFile(path));
}

TEST(FileIO, EachFailingCallIsToldAndNothingIsHeld) {
  const ScratchDir dir;
  const std::string path = dir.Path("file");
  const int before = OpenFds();
  for (const std::string call : {"open", "unlink", "close", "readlink"}) {
    FileIODescriptor fd;
    const std::string log = LogOf([&] {
      const SysFault fault(call, 1, EIO);
      constexpr uint32_t kUnlink = FILEIO_FLAG_UNBUFFERED | FILEIO_FLAG_UNLINK_AFTER_OPEN;
      if (FileIO_Open(&fd, path.c_str(), kReadWrite | kUnlink, FILEIO_OPEN_CREATE_SAFE) ==
          FILEIO_SUCCESS) {
        EXPECT_EQ(FILEIO_ERROR, FileIO_CloseAndUnlink(&fd)) << call;
      }
      EXPECT_EQ(EIO, errno) << call;
    });
    EXPECT_EQ(call == "open" || call == "unlink" ? Record(call, path, EIO) : "", log);
    EXPECT_FALSE(FileIO_IsValid(&fd));
    EXPECT_EQ(before, OpenFds()) << call;
    unlink(path.c_str());
  }
}

}  // namespace
