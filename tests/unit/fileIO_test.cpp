// fileIO_test.cpp -- open files: what each open does, whole transfers, vectors, and failures.

#include "lib/public/fileIO.h"

#include <sys/resource.h>
#include <sys/xattr.h>

#include <tuple>

#include "lib/public/msg.h"
#include "platform/files.h"
#include "tests/support/asRoot.h"
#include "tests/support/process.h"
#include "tests/support/sysFault.h"
#include "tests/support/test.h"

namespace {

constexpr uint32_t kRead = FILEIO_ACCESS_READ, kWrite = FILEIO_ACCESS_WRITE;
constexpr uint32_t kReadWrite = kRead | kWrite;

// An open file, closed at the end of the scope.
struct Opened {
  FileIODescriptor fd;
  FileIOResult result;
  int error;  // 0 for success

  Opened(const std::string &path, uint32_t access, int action = FILEIO_OPEN) {
    result = FileIO_Open(&fd, path.c_str(), access, static_cast<FileIOOpenAction>(action));
    error = result == FILEIO_SUCCESS ? 0 : errno;
    EXPECT_EQ(error == 0, FileIO_IsValid(&fd) && fd.fileName == path);
  }
  Opened(const Opened &) = delete;
  ~Opened() {
    if (FileIO_IsValid(&fd)) FileIO_Close(&fd);
  }
};

std::string Record(const std::string &call, const std::string &path) {
  return "FILE:" + call + " error on " + path + ": Input/output error\n";
}

TEST(FileIO, ErrnosHaveCodesAndCodesHaveTexts) {
  for (const auto &[error, text] : {std::pair{EIO, "generic)Error"},
                                    {EFBIG, "fBig)The file is too large"},
                                    {ENOSPC, "noSpc)There is no space left on the device"},
                                    {EDQUOT, "dQuot)There is no space left on the device"}}) {
    const SysFault fault("open", 1, error);
    FileIOResult result = FILEIO_SUCCESS;
    EXPECT_EQ(error == EIO ? Record("open", "/") : "",
              LogOf([&] { result = Opened("/", kRead).result; }));
    EXPECT_EQ(std::string("@&!*@*@(msg.fileio.") + text, FileIO_MsgError(result));
  }
  EXPECT_EQ("Panic: NOT_IMPLEMENTED lib/file/fileIO:150\n",
            FatalText([] { static_cast<void>(FileIO_MsgError(FILEIO_RESERVED)); }));
}

TEST(FileIO, ActionsCreateAndEmptyAsTheySay) {
  // Under a lock, the file is emptied by other means.
  constexpr uint32_t kLocked = kRead | FILEIO_FLAG_EXLOCK;
  for (const uint32_t access : {kReadWrite, kWrite | kLocked, kLocked}) {
    // The errno for a file that is missing and one that is there, and what is in it then.
    for (const auto &[action, missing, there, content] :
         {std::tuple{FILEIO_OPEN, ENOENT, 0, "old"},
          {FILEIO_OPEN_EMPTY, ENOENT, 0, ""},
          {FILEIO_OPEN_CREATE, 0, 0, "old"},
          {FILEIO_OPEN_CREATE_SAFE, 0, EEXIST, "old"},
          {FILEIO_OPEN_CREATE_EMPTY, 0, 0, ""}}) {
      const ScratchDir dir;
      const std::string file = dir.Write("file", "old");
      EXPECT_EQ(missing, Opened(dir.Path("new"), access, action).error) << action;
      EXPECT_EQ(there, Opened(file, access, action).error) << action;
      EXPECT_EQ(content, ReadFile(file)) << action;
    }
  }
  const ScratchDir dir;
  EXPECT_EQ(EISDIR, Opened(dir.Path(), kLocked, FILEIO_OPEN_EMPTY).error);
  Opened file(dir.Path("a"), kWrite | FILEIO_FLAG_SYNC, FILEIO_OPEN_CREATE);
  EXPECT_EQ(O_SYNC, fcntl(file.fd.posix, F_GETFL) & O_SYNC);
  const SysFault fault("pwrite", 1, EINTR);
  const iovec one = {file.fd.fileName, 1};
  EXPECT_EQ(FILEIO_SUCCESS, FileIOPwritevCoalesced(&file.fd, &one, 1, 1, 0, nullptr));
  EXPECT_EQ(
      0, Opened(dir.Path("b"), kWrite | FILEIO_FLAG_UNLINK_AFTER_OPEN, FILEIO_OPEN_CREATE).error);
  EXPECT_TRUE(FileIO_CloseAndUnlink(&file.fd) == FILEIO_SUCCESS && fs::is_empty(dir.Path()));
}

TEST(FileIO, LocksHoldAndRefusalsTouchNothing) {
  const ScratchDir dir;
  const std::string file = dir.Write("file", "content"), link = dir.Path("link");
  ASSERT_EQ(0, symlink("file", link.c_str()));
  constexpr uint32_t kTry = kReadWrite | FILEIO_FLAG_EXLOCK | FILEIO_FLAG_NONBLOCK;
  const Opened holder(file, kWrite | FILEIO_FLAG_EXLOCK | FILEIO_FLAG_APPEND);
  EXPECT_NE(0, fcntl(holder.fd.posix, F_GETFD) & FD_CLOEXEC);
  FileIODescriptor again = FileIO_FromPosix(dup(holder.fd.posix));
  EXPECT_EQ(kWrite | FILEIO_FLAG_APPEND, again.flags);
  FileIO_Close(&again);
  EXPECT_TRUE(fs::exists(Opened(file, FILEIO_FLAG_LOCK_DEFAULT).fd.fileName + std::string(".lck")));
  EXPECT_FALSE(fs::exists(file + ".lck"));
  LogOf([&] {
    EXPECT_EQ(EAGAIN, Opened(file, kTry, FILEIO_OPEN_CREATE_EMPTY).error);
    EXPECT_EQ(EAGAIN, Opened(file, kTry | FILEIO_FLAG_PRIVILEGED).error);
    EXPECT_EQ(EACCES, Opened(file, kRead | FILEIO_FLAG_PRIVILEGED, FILEIO_OPEN_CREATE).error);
    EXPECT_EQ(EACCES, Opened(file, kRead | FILEIO_FLAG_PRIVILEGED, FILEIO_OPEN_EMPTY).error);
    EXPECT_EQ(ENOTSUP, Opened(file, FILEIO_FLAG_LOCK_MANDATORY, FILEIO_OPEN_CREATE_EMPTY).error);
    EXPECT_EQ(ELOOP, Opened(link, kRead | FILEIO_FLAG_NOFOLLOW).error);
  });
  for (const auto &[error, result] : {std::pair{EROFS, FILEIO_LOCK_FAILED},
                                      {EACCES, FILEIO_NO_PERMISSION},
                                      {ENOENT, FILEIO_FILE_NOT_FOUND},
                                      {ENAMETOOLONG, FILEIO_FILE_NAME_TOO_LONG}}) {
    const SysFault fault("mkdir", 1, error);
    LogOf([&, wanted = result] {
      EXPECT_EQ(wanted, Opened(file, kWrite | FILEIO_FLAG_LOCK_PORTABLE).result);
    });
  }
  Msg_Reset();
  EXPECT_EQ("content", ReadFile(file));
}

TEST(FileIO, PrivilegedOpensReachWhatTheUserMayNot) {
  RUN_AS_ROOT();
  constexpr uid_t kUser = 12345;
  constexpr uint32_t kPrivileged = kRead | FILEIO_FLAG_PRIVILEGED;
  const ScratchDir dir;
  const std::string secret = dir.Write("secret", "secret");
  ASSERT_TRUE(chmod(dir.Path().c_str(), 0755) == 0 && chmod(secret.c_str(), 0600) == 0);
  InChild([&] {
    EXPECT_TRUE(seteuid(kUser) == 0 && Opened(secret, kRead).error == EACCES);
    EXPECT_TRUE(Opened(secret, kPrivileged).error == 0 && geteuid() == kUser);
    EXPECT_TRUE(Opened(dir.Path("no"), kPrivileged).error == ENOENT && geteuid() == kUser);
    FileIO_SetPrivilegedOpen([](const char *, int flags) { return open("/dev/null", flags); });
    EXPECT_EQ(0, Opened(dir.Path("no"), kPrivileged).error);
  });
}

TEST(FileCopy, HasDataAndMetadataAndNothingElse) {
  const ScratchDir dir;
  const std::string content = std::string(300'000, 'x') + '\0' + "end";
  const std::string from = dir.Write("from", content), to = dir.Write("to", content + content);
  const auto copy = [&](const std::string &source, uint64_t limit) {
    EXPECT_EQ(0, chmod(to.c_str(), 0600)) << "the copy before this one left its own mode";
    const Fd in(open(source.c_str(), O_RDONLY)), out(open(to.c_str(), O_RDWR));
    return Platform_CopyFileWithMetadata(in.Get(), out.Get(), limit);
  };
  if (setxattr(from.c_str(), "user.mine", "value", 5, 0) != 0 && errno == ENOTSUP) {
    SKIP_FOR_WANT_OF("extended attributes of users");
  }
  ASSERT_EQ(0, setxattr(to.c_str(), "user.old", "value", 5, 0));
  ASSERT_TRUE(geteuid() != 0 || chown(from.c_str(), 12345, 54321) == 0);
  const timespec times[] = {{1'000'000'000, 123'456'789}, {1'100'000'000, 987'654'321}};
  ASSERT_TRUE(chmod(from.c_str(), 04510) == 0 && utimensat(AT_FDCWD, from.c_str(), times, 0) == 0);
  ASSERT_TRUE(copy(from, content.size()));
  struct stat status;
  ASSERT_EQ(0, stat(to.c_str(), &status));
  EXPECT_EQ(S_IFREG | 04510u, status.st_mode);
  EXPECT_TRUE(geteuid() != 0 || (status.st_uid == 12345 && status.st_gid == 54321));
  EXPECT_EQ(987'654'321, status.st_mtim.tv_nsec);
  EXPECT_EQ(5, getxattr(to.c_str(), "user.mine", nullptr, 0));
  EXPECT_EQ(-1, getxattr(to.c_str(), "user.old", nullptr, 0));
  EXPECT_EQ(content, ReadFile(to));
  // No more than allowed, whether the source is larger or becomes so.
  EXPECT_TRUE(!copy(from, content.size() - 1) && errno == EFBIG);
  const SysFault grow("fstat", 2, 0, [&] {
    chmod(from.c_str(), 0600);
    fs::resize_file(from, 700'000);
  });
  EXPECT_TRUE(!copy(from, content.size()) && errno == EFBIG && grow.Fired());
  EXPECT_GE(content.size(), fs::file_size(to));
  // A source whose size nobody knows is copied by hand, and there may be no room for it.
  InChild([&] {
    const rlimit little = {100, 100};
    ASSERT_TRUE(signal(SIGXFSZ, SIG_IGN) != SIG_ERR && setrlimit(RLIMIT_FSIZE, &little) == 0);
    EXPECT_TRUE(!copy("/proc/self/maps", UINT64_MAX) && errno == EFBIG);
  });
  // Across file systems, with a size said to be 0; and what is no file.
  const std::string mounts = "/proc/self/mounts", mounted = ReadFile(mounts);
  EXPECT_TRUE(!copy(mounts, mounted.size() - 1) && errno == EFBIG);
  ASSERT_TRUE(copy(mounts, mounted.size()));
  EXPECT_EQ(mounted, ReadFile(to));
  EXPECT_TRUE(!copy("/dev/null", UINT64_MAX) && errno == ENOTSUP);
}

// Writes a vector in two ways and reads it back, a piece of the file missing in the end.
void RoundTrip(int count, uint32_t flags, std::mt19937 *random) {
  const ScratchDir dir;
  std::string data(static_cast<size_t>(count) * 300, 0), got(data.size(), '#');
  for (char &c : data) c = static_cast<char>((*random)());
  std::vector<iovec> from, to;
  size_t size = 0, actual = 0;
  for (int i = 0; i < count; i++) {
    const size_t length = (*random)() % 3 == 0 ? 0 : (*random)() % 300;
    from.push_back({data.data() + size, length});
    to.push_back({got.data() + size, length});
    size += length;
  }
  data.resize(size);
  Opened file(dir.Path("file"), kReadWrite | flags, FILEIO_OPEN_CREATE);
  EXPECT_EQ(FILEIO_SUCCESS, FileIO_Writev(&file.fd, from.data(), count, size, &actual));
  EXPECT_EQ(FILEIO_SUCCESS, FileIOPwritevCoalesced(&file.fd, from.data(), count, size, 5, nullptr));
  EXPECT_TRUE(data.substr(0, 5) + data == ReadFile(dir.Path("file")));

  const size_t left = size == 0 ? 0 : (*random)() % size;
  lseek(file.fd.posix, -static_cast<off_t>(left), SEEK_END);
  EXPECT_EQ(size == 0 ? FILEIO_SUCCESS : FILEIO_READ_ERROR_EOF,
            FileIO_Readv(&file.fd, to.data(), count, size, &actual));
  EXPECT_EQ(left, actual);
  EXPECT_TRUE(got.starts_with(data.substr(size - left) + std::string(size - left, '#')));
}

TEST(FileVector, ArrivesWholeWithAnySettings) {
  static int64_t setting;  // what each one is; they are read once in a process
  const auto roundTrips = [] {
    FileIO_SetConfigStore([](const char *, int64_t *value) {
      *value = setting;
      return setting >= 0;
    });
    std::mt19937 random(1);
    for (const int count : {0, 1, 2, 6, 40, 1024, 2500}) {
      RoundTrip(count, 0, &random);
      RoundTrip(count, FILEIO_FLAG_UNBUFFERED, &random);
    }
  };
  for (setting = 0; setting <= 1000; setting += 1000) InChild(roundTrips);
  setting = -1;
  std::thread another(roundTrips);  // they share the pool of buffers
  roundTrips();
  another.join();
}

// A pipe of packets, of which each read gives one.
TEST(FileVector, GoesOnWithinAnEntryAndSaysWhereItsWritesEnded) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_DIRECT | O_NONBLOCK));
  FileIODescriptor reader = FileIO_FromPosix(ends[0]), writer = FileIO_FromPosix(ends[1]);
  std::string got(12, '#'), much(200'000, 'x');
  for (const std::string packet : {"012345", "67", "89ab"}) {
    const SysFault fault("write", 1, EINTR);
    EXPECT_EQ(FILEIO_SUCCESS, FileIO_Write(&writer, packet.data(), packet.size(), nullptr));
  }
  const iovec to[] = {{got.data(), 4}, {&got[4], 4}, {&got[8], 4}};
  const SysFault readFault("readv", 1, EINTR);
  EXPECT_EQ(FILEIO_SUCCESS, FileIO_Readv(&reader, to, 3, got.size(), nullptr));
  EXPECT_TRUE("0123456789ab" == got && readFault.Fired());
  const iovec from[] = {{much.data(), 1000}, {&much[1000], much.size() - 1000}};
  size_t actual = 0;
  const SysFault writeFault("writev", 1, EINTR);
  EXPECT_EQ(FILEIO_WRITE_ERROR_NOSPC, FileIO_Writev(&writer, from, 2, much.size(), &actual));
  EXPECT_TRUE(actual > 1000 && actual < much.size() && writeFault.Fired());
  const SysFault interrupted("read", 1, EINTR);
  EXPECT_EQ(FILEIO_SUCCESS, FileIO_Read(&reader, much.data(), 5000, nullptr));
  const SysFault error("read", 3, EIO);
  LogOf([&] { EXPECT_EQ(FILEIO_ERROR, FileIO_Read(&reader, much.data(), much.size(), &actual)); });
  EXPECT_TRUE(actual == 2 * 4096 && error.Fired());
  FileIO_Close(&reader);
  FileIO_Close(&writer);
}

TEST(FileIO, AReplacedFileIsTheOldOneOrTheWholeNewOne) {
  const ScratchDir dir;
  const std::string path = dir.Write("file", "old"), freshPath = dir.Path("fresh");
  for (const char *call : {"fsync", "rename", "none"}) {
    Opened current(path, kRead), fresh(freshPath, kReadWrite, FILEIO_OPEN_CREATE_EMPTY);
    ASSERT_EQ(FILEIO_SUCCESS, FileIO_Write(&fresh.fd, "new", 3, nullptr));
    const SysFault fault(call, 1, EIO);
    EXPECT_EQ(std::string(call) == "none" ? "" : Record(call, freshPath), LogOf([&] {
                const FileIOResult result = FileIO_Replace(&current.fd, &fresh.fd);
                EXPECT_EQ(fault.Fired() ? FILEIO_ERROR : FILEIO_SUCCESS, result);
              }));
    EXPECT_EQ(fault.Fired() ? "old" : "new", ReadFile(path));
    EXPECT_EQ(fault.Fired() ? -1 : 3, pwrite(current.fd.posix, "NEW", 3, 0));
  }
}

}  // namespace
