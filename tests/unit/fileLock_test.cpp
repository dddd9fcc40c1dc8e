// fileLock_test.cpp -- the portable lock: its records, what it makes of everything else that may
// stand in a lock directory, failures and deaths at each step.
//
// Time is the test's own: a sleep moves the clock and returns.

#include "fileLock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "base64.h"
#include "fileIO.h"
#include "heap.h"
#include "hostinfo.h"
#include "lib/file/fileLockInt.h"
#include "msgList.h"
#include "platform/processStart.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"
#include "tests/support/sysFault.h"

namespace fs = std::filesystem;

namespace {
std::atomic<uint64_t> sleptNs{0};
std::atomic<bool> nativeIsDefault{false};
}  // namespace

extern "C" {
int __real_clock_gettime(clockid_t clock, timespec *now);
int __wrap_clock_gettime(clockid_t clock, timespec *now);
int __wrap_clock_gettime(clockid_t clock, timespec *now) {
  const int result = __real_clock_gettime(clock, now);
  const uint64_t ns = static_cast<uint64_t>(now->tv_nsec) + sleptNs;
  now->tv_sec += static_cast<time_t>(ns / 1'000'000'000);
  now->tv_nsec = static_cast<long>(ns % 1'000'000'000);
  return result;
}
int __wrap_nanosleep(const timespec *time, timespec *left);
int __wrap_nanosleep(const timespec *time, timespec *) {
  sleptNs +=
      static_cast<uint64_t>(time->tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time->tv_nsec);
  return 0;
}
// bool FileLockNativeIsDefault()
bool __wrap__Z23FileLockNativeIsDefaultv();
bool __wrap__Z23FileLockNativeIsDefaultv() {
  return nativeIsDefault;
}
}

namespace {

constexpr char kElsewhere[] = "uuid=52-00-00-00-00-00-00-00-00-00-00-00-00-00-00-00";

std::string LogOf(const std::function<void()> &body) {
  return WithoutStamps(CaptureOutput(body));
}

uint64_t SleptMs() {
  return sleptNs / 1'000'000;
}

// "PID-START" of a process, the start moved by `shift`.
std::string IdOf(pid_t pid, uint64_t shift = 0) {
  uint64_t start = 0;
  EXPECT_TRUE(Platform_ProcessStartTime(pid, &start));
  return std::to_string(pid) + "-" + std::to_string(start + shift);
}

std::string Padded(std::string text) {
  text.resize(512, '\0');
  return text;
}

// A process that is there until the end of the scope.
struct Bystander {
  const pid_t pid = fork();
  const std::string id = pid == 0 ? "" : IdOf(pid);

  Bystander() {
    while (pid == 0) pause();
  }
  ~Bystander() { End(); }
  void End() const {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
};

std::string IdOfDead() {
  return Bystander().id;
}

// A lock or its refusal.
struct Taken {
  FileLockToken *token;
  int err = -1;
  std::string message;

  explicit Taken(const std::string &path, bool readOnly = false, uint32_t msecMaxWait = 0) {
    MsgList *list = nullptr;
    token = FileLock_Lock(path.c_str(), readOnly, msecMaxWait, &err, &list);
    EXPECT_EQ(token != nullptr, err == 0);
    const HeapStr text(MsgList_ToString(list));
    message = text == nullptr ? "" : text.get();
    MsgList_Free(list);
  }
  Taken(const Taken &) = delete;
  Taken &operator=(const Taken &) = delete;
  ~Taken() { EXPECT_EQ(0, token == nullptr ? 0 : Release()); }
  int Release() {
    int error = -1;
    const bool ok = FileLock_Unlock(std::exchange(token, nullptr), &error, nullptr);
    EXPECT_EQ(ok, error == 0);
    return error;
  }
};

class FileLockTest : public testing::Test {
 protected:
  ScratchDir dir_;
  const std::string file_ = dir_.Path("file");
  const std::string lockDir_ = file_ + ".lck";
  const std::string member_ = lockDir_ + "/M00001.lck";
  const std::string here_ = FileLockMachineID();

  std::set<std::string> Names() const {
    std::set<std::string> names;
    std::error_code none;
    for (const auto &entry : fs::directory_iterator(lockDir_, none)) {
      names.insert(entry.path().filename());
    }
    return names;
  }
  void Put(const std::string &name, const std::string &content) const {
    fs::create_directory(lockDir_);
    dir_.Write("file.lck/" + name, content);
  }
  void PutRecord(const std::string &text) const { Put("M00001.lck", Padded(text)); }
  bool DirectoryIsGone() const { return !fs::exists(fs::symlink_status(lockDir_)); }
  // What taking the lock, with this result, writes to the log.
  std::string Try(int expected, uint32_t msecMaxWait = 0, bool readOnly = false) const {
    return LogOf([&] { EXPECT_EQ(expected, Taken(file_, readOnly, msecMaxWait).err); });
  }
  std::string TimeOutLine(const std::string &who) const {
    return "FILE: FileLockWaitForPossession timeout on '" + file_ + "' due to " + who + "'\n";
  }
};

TEST_F(FileLockTest, LeavesARecordForOtherPrograms) {
  const mode_t umaskBefore = umask(077);
  Taken lock(file_);
  umask(umaskBefore);
  struct stat info;
  ASSERT_EQ(0, stat(lockDir_.c_str(), &info));
  EXPECT_EQ(0777U, info.st_mode & 07777);
  ASSERT_EQ(1U, Names().size());
  const std::string name = *Names().begin();
  EXPECT_TRUE(std::regex_match(name, std::regex("M[0-9]{5}\\.lck")) && name <= "M65535.lck");

  // What a reader makes of it who knows the format and nothing of this code.
  const std::string record = ReadFile(lockDir_ + "/" + name);
  const std::string text = record.substr(0, record.find('\0'));
  EXPECT_EQ(Padded(text), record);
  std::smatch field;
  ASSERT_TRUE(std::regex_match(
      text, field,
      std::regex("uuid=52(?:-[0-9a-f]{2}){15} ([0-9]+-([0-9]+)) 1 X ([0-9]+) lc=([0-9]+)")));
  EXPECT_EQ(IdOf(getpid()), field[1]);
  EXPECT_EQ(field[2], field[3]);
  uint64_t djb2 = 5381;
  for (const char c : lockDir_) djb2 = (djb2 * 33 + static_cast<unsigned char>(c)) % (1ULL << 32);
  EXPECT_EQ(std::to_string(djb2), field[4]);

  EXPECT_EQ(0, lock.Release());
  EXPECT_TRUE(DirectoryIsGone());
  const ChildResult child = RunInChild([&] {
    const Taken other(file_, true);
    const std::string own = ReadFile(lockDir_ + "/" + *Names().begin());
    if (own.find(" " + IdOf(getpid()) + " 1 S ") == std::string::npos) _exit(1);
  });
  EXPECT_EQ(42, child.exitStatus);
}

TEST_F(FileLockTest, SharedLocksGoTogetherOthersWaitInSteps) {
  const std::string message = "A file locking error (" + std::to_string(EAGAIN) +
                              ") has occurred: " + strerror(EAGAIN) + ".\n";
  for (const bool first : {false, true}) {
    const Taken holder(file_, first);
    EXPECT_EQ(first ? "" : message, Taken(file_, true).message);
    for (const uint32_t limit : {0U, 300U, 2500U, 60000U}) {
      const uint64_t before = SleptMs();
      EXPECT_EQ(limit == 0 ? "" : TimeOutLine("a local process '" + IdOf(getpid())),
                Try(EAGAIN, limit));
      const uint64_t waited = SleptMs() - before;
      const uint64_t step = limit < 2000 ? 100 : limit < 20000 ? limit / 10 : 2000;
      EXPECT_TRUE(waited + 50 >= limit && waited <= (limit == 0 ? 0 : limit + step)) << waited;
    }
    EXPECT_EQ(1U, Names().size());
  }
}

TEST_F(FileLockTest, AWaiterSeesWhoDiesAndWhoLeaves) {
  // A zombie lives, until it is waited for.
  const Bystander dying;
  PutRecord(here_ + " " + dying.id + " 1 X 1");
  SysFault death("stat", 6, 0, [&] { dying.End(); });
  EXPECT_EQ(
      "FILE: FileLockWaitForPossession discarding file '" + member_ + "'; invalid executionID.\n",
      Try(0, 5000));
  // Another one may draw the number of somebody who has left; his record is not that one's.
  const Bystander live;
  PutRecord(here_ + " " + live.id + " 1 X 1");
  SysFault swap("stat", 5, 0, [&] { PutRecord(here_ + " " + live.id + " 3 X 1"); });
  EXPECT_EQ("", Try(0, FILELOCK_INFINITE_WAIT));
  EXPECT_TRUE(swap.Fired());
}

// This machine as it was once called, of which only a part counts.
std::string OldMachineID() {
  uint32_t hash;
  uint64_t hardware;
  Hostinfo_MachineID(&hash, &hardware);
  unsigned char bytes[12] = {'o', 'l', 'd'};
  memcpy(bytes + 4, &hardware, sizeof hardware);
  bytes[11] = 0xFF;
  char text[17];
  EXPECT_TRUE(Base64_Encode(bytes, sizeof bytes, text, sizeof text, nullptr));
  for (char &c : text) c = c == '/' ? '-' : c;
  return text;
}

// The same record, whole, in the way of somebody who wants the lock at once.
TEST_F(FileLockTest, WhoseRecordCountsAndWhoseGoes) {
  const Bystander live;
  const std::string dead = IdOfDead();
  const std::string early = IdOf(live.pid, ~0ULL);
  const std::string pid = std::to_string(live.pid);
  const std::string start = live.id.substr(pid.size() + 1);
  const std::string discarding =
      "FILE: FileLockScanner discarding M00001.lck from " + lockDir_ + "': ";
  const auto invalid = [&](const std::string &id) {
    return discarding + "invalid executionID " + id + ".\n";
  };
  const auto twice = [](const std::string &line) { return line + "\n" + line + "\n"; };
  struct Row {
    std::string record;
    int expected;
    std::string log;
  };
  for (const Row &row : {
           Row{here_ + " " + live.id + "  7 X 1 new=a=b lc=1 lc=2", EAGAIN, ""},
           Row{here_ + " " + live.id + " 7 X 1", EAGAIN, ""},
           Row{here_ + " " + pid + " 7 X " + start + " lc=1", EAGAIN, ""},  // old
           Row{here_ + " " + pid + " 7 X 1 lc=1", 0, invalid(pid + "-1")},
           Row{here_ + " " + pid + "-0 7 X 1", EAGAIN, ""},
           Row{here_ + " " + pid + "-x 7 X 1", EAGAIN, ""},
           Row{here_ + " " + dead + " 7 X 1", 0, invalid(dead)},
           Row{here_ + " " + early + " 7 X 1", 0, invalid(early)},
           Row{here_ + " 0-5 7 X 1", 0, invalid("0-5")},
           Row{here_ + " " + IdOf(getpid()) + " 7 X 1 lc=1", 0,
               discarding + "lock file has been moved.\n"},
           Row{here_ + " x-1 7 X 1", EAGAIN,
               twice("FILE: FileLockValidExecutionID parse error on 'x-1'. Assuming valid.")},
           Row{here_ + " -1-2 7 X 1", EAGAIN,
               twice("FILE: FileLockValidExecutionID parse error on '-1-2'. Assuming valid.")},
           Row{OldMachineID() + " " + dead + " 7 X 1", 0, invalid(dead)},
           Row{std::string(kElsewhere) + " " + dead + " 7 X 1", EAGAIN, ""},
           Row{"* " + dead + " 7 X 1", EAGAIN,
               twice("OldMachineIDMatch: unexpected decode problem #2 (*)") +
                   "OldMachineIDMatch: unexpected decode problem #2 (*)\n"},
           // The highest number has no successor.
           Row{here_ + " " + live.id + " 4294967295 X 1", EOVERFLOW, ""},
       }) {
    PutRecord(row.record);
    EXPECT_EQ(row.log, Try(row.expected)) << row.record;
    EXPECT_EQ(row.expected == 0, DirectoryIsGone());
  }
  PutRecord(std::string(kElsewhere) + " " + dead + " 7 X 1");
  EXPECT_EQ(TimeOutLine(std::string("another machine '") + kElsewhere), Try(EAGAIN, 60));
}

TEST_F(FileLockTest, WhatCannotBeARecordGoes) {
  const std::string self = "FILE: FileLockMemberValues ";
  const std::string removing = self + "removing problematic lock file '" + member_ + "'\n";
  std::string many = "m 1-1 1 X 1";
  for (int i = 0; i < 11; i++) many += " a=b";
  // The text, and its tokens with blanks between them if they are not the same.
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},
      {"m 1-1 1 X", ""},
      {"m 1-1 x X 1 lc=1", ""},
      {"m 1-1 4294967296 X 1", ""},
      {"m 1-1 1 Y 1", ""},
      {"m 1-1 1 X 1 lc", ""},
      {"m 1-1 1 X 1 =1", ""},
      {"m 1-1 1 X 1 lc=", ""},
      {"m\n 1-1 1 Y 1 \x01=1", "m? 1-1 1 Y 1 ?=1"},
      {"m 1 1 Y 7 lc=1", "m 1-7 1 Y 7 lc=1"},  // old
      {many + " a=b", many},
      {std::string(512, 'x'), ""},
  };
  for (const auto &[text, tokens] : rows) {
    PutRecord(text);
    std::string expected = removing + self + "'" + member_ + "' contents are:\n";
    std::istringstream in(tokens.empty() ? text : tokens);
    int number = 0;
    for (std::string token; in >> token; number++) {
      expected += self + member_ + " argv[" + std::to_string(number) + "]: '" + token + "'\n";
    }
    EXPECT_EQ(expected, Try(0)) << text;
  }
  for (const size_t size : {0U, 511U, 513U}) {
    Put("M00001.lck", std::string(size, 'x'));
    EXPECT_EQ(self + "file '" + member_ + "': size " + std::to_string(size) +
                  ", required size 512\n" + removing,
              Try(0));
  }
  // Neither what a link names is read, nor does a FIFO stop anybody.
  fs::create_directory(lockDir_);
  fs::create_symlink(dir_.Write("secret", Padded("secret")), member_);
  ASSERT_EQ(0, mkfifo((lockDir_ + "/M00002.lck").c_str(), 0666));
  const std::string log = Try(0);
  EXPECT_NE(std::string::npos, log.find(removing)) << log;
  EXPECT_EQ(std::string::npos, log.find(": 'secret'")) << log;
  EXPECT_TRUE(fs::exists(dir_.Path("secret")) && DirectoryIsGone());
}

TEST_F(FileLockTest, OnlyNamesOfEntriesStay) {
  for (const char *const name : {"M1234.lck", "M1234x.lck", "m12345.lck", "M12345.lc", ".nfs01"}) {
    Put(name, "");
    EXPECT_EQ("FILE: FileLockScanner discarding " + std::string(name) + " from " + lockDir_ +
                  "'; invalid file name.\n",
              Try(0));
  }
  // A name that cannot be told stays, and harms nobody; a directory is not removed by force.
  Put("\xFF", "");
  Try(0);
  fs::create_directory(lockDir_ + "/foreign");
  const std::string log = LogOf([&] { EXPECT_NE(0, Taken(file_).err); });
  EXPECT_NE(std::string::npos,
            log.find("FILE: FileLockRemoveLockingFile of '" + lockDir_ + "/foreign' failed: "))
      << log;
  EXPECT_EQ((std::set<std::string>{"\xFF", "foreign"}), Names());
}

TEST_F(FileLockTest, WhoChoosesForTooLongIsDiscarded) {
  for (const bool isFile : {false, true}) {
    Put("E00001.lck", "");
    PutRecord(std::string(kElsewhere) + " 1-1 1 X 1");
    if (isFile) Put("D00001.lck", "");
    if (!isFile) fs::create_directory(lockDir_ + "/D00001.lck");
    const uint64_t before = SleptMs();
    EXPECT_EQ("FILE: FileLockScanner discarding D00001.lck data from '" + lockDir_ + "'.\n",
              Try(0));
    EXPECT_EQ(42 * 200U, SleptMs() - before);  // 41 looks at it, and one after
    EXPECT_TRUE(DirectoryIsGone());
  }
}

TEST_F(FileLockTest, WhatStandsInTheWayOfTheDirectory) {
  const std::string self = "FILE: FileLockCreateEntryDirectory";
  dir_.Write("file.lck", "");
  EXPECT_EQ(self + ": '" + lockDir_ + "' is not a directory. Removed.\n", Try(0));
  const std::string missing = dir_.Path("none/file");
  EXPECT_EQ(self + " creation failure on '" + missing + ".lck': " + strerror(ENOENT) + "\n",
            LogOf([&] { EXPECT_EQ(ENOENT, Taken(missing).err); }));
}

// As an ordinary user: for root everything is writable.
TEST_F(FileLockTest, WhereNobodyMayWriteSharedLocksAreGranted) {
  for (const bool lockDirThere : {false, true}) {
    if (lockDirThere && mkdir(lockDir_.c_str(), 0555) != 0) FAIL();
    chmod(dir_.Path().c_str(), 0555);
    const ChildResult child = RunInChild([&] {
      if (geteuid() == 0 && setuid(65534) != 0) _exit(1);
      Taken shared(file_, true);
      if (shared.err != 0 || shared.Release() != 0) _exit(2);
      if (Taken(file_).err != EACCES) _exit(3);
    });
    EXPECT_EQ(42, child.exitStatus);
    EXPECT_NE(std::string::npos, child.output.find("FILE: FileLockIntrinsicPortable implicit S "
                                                   "lock succeeded on '" +
                                                   file_ + "'.\n"));
    chmod(dir_.Path().c_str(), 0755);
  }
}

TEST_F(FileLockTest, OneFileUnderManyPathsIsOneLock) {
  fs::create_directory(dir_.Path("sub"));
  fs::create_directory_symlink("sub", dir_.Path("link"));
  const fs::path before = fs::current_path();
  fs::current_path(dir_.Path("sub"));
  const std::string paths[] = {"file", "./file", dir_.Path("sub/file"), dir_.Path("link//file")};
  for (const std::string &holder : paths) {
    for (const std::string &other : paths) {
      const Taken lock(holder);
      EXPECT_EQ("", LogOf([&] { EXPECT_EQ(EAGAIN, Taken(other).err) << holder << ' ' << other; }));
    }
  }
  fs::current_path(before);
  Taken lost(file_);
  fs::remove_all(lockDir_);
  EXPECT_EQ(ENOENT, lost.Release());
}

TEST_F(FileLockTest, AFileIsOpenedUnderItsLock) {
  FileIODescriptor fd;
  ASSERT_EQ(FILEIO_SUCCESS,
            FileIO_Open(&fd, file_.c_str(), FILEIO_ACCESS_WRITE | FILEIO_FLAG_LOCK_DEFAULT,
                        FILEIO_OPEN_CREATE));
  EXPECT_EQ(1U, Names().size());
  const uint64_t before = SleptMs();
  const std::string log = LogOf([&] {
    FileIODescriptor other;
    EXPECT_EQ(FILEIO_ERROR,
              FileIO_Open(&other, file_.c_str(), FILEIO_FLAG_LOCK_PORTABLE, FILEIO_OPEN));
    EXPECT_EQ(EAGAIN, errno);
  });
  EXPECT_TRUE(
      log.ends_with("FILE: FileIO_Lock on '" + file_ + "' failed: " + strerror(EAGAIN) + "\n"));
  EXPECT_TRUE(SleptMs() - before >= 3450 && SleptMs() - before <= 3850) << SleptMs() - before;
  EXPECT_EQ(FILEIO_SUCCESS, FileIO_Close(&fd));
  EXPECT_TRUE(DirectoryIsGone());
  nativeIsDefault = true;
  EXPECT_EQ(ENOTSUP, Taken(file_).err);
  EXPECT_EQ(FILEIO_LOCK_FAILED,
            FileIO_Open(&fd, file_.c_str(), FILEIO_FLAG_LOCK_DEFAULT, FILEIO_OPEN));
  nativeIsDefault = false;
}

// Whatever fails: the lock is held or it is not, and nothing of it is left, unless a removal failed.
TEST_F(FileLockTest, SurvivesTheFailureOfAnySystemCall) {
  const std::set<std::string> removals = {"unlink", "rmdir", "opendir", "readdir", "close"};
  for (const int error : {EIO, ENOENT, EEXIST, ENOSPC}) {
    for (int n = 1;; n++) {
      PutRecord(here_ + " " + IdOfDead() + " 1 X 1");
      SysFault fault("", n, error);
      CaptureOutput([&] {
        Taken lock(file_);
        EXPECT_EQ(lock.token == nullptr, !lock.message.empty());
        if (lock.token == nullptr) return;
        EXPECT_EQ(1U, Names().size() - Names().count("M00001.lck")) << fault.Call();
        EXPECT_TRUE(lock.Release() == 0 || fault.Fired());
      });
      fault.Disarm();
      if (!fault.Fired()) break;
      std::set<std::string> left = Names();
      left.erase("M00001.lck");
      EXPECT_TRUE(left.empty() || removals.contains(fault.Call())) << fault.Call() << ' ' << n;
      fs::remove_all(lockDir_);
    }
  }
}

// Who is killed anywhere on the way in or out holds nobody up for more than 8.4 seconds.
TEST_F(FileLockTest, SurvivesADeathAtAnySystemCall) {
  for (int n = 1;; n++) {
    PutRecord(here_ + " " + IdOfDead() + " 1 X 1");
    const ChildResult child = RunInChild([&] {
      SysFault death("", n, 0, [] { raise(SIGKILL); });
      Taken lock(file_);
      _exit(lock.Release() == 0 ? 42 : 1);
    });
    const uint64_t before = SleptMs();
    Try(0, 10);
    EXPECT_GE(42 * 200U, SleptMs() - before) << n;
    EXPECT_TRUE(DirectoryIsGone()) << n;
    if (child.signal != 0) continue;
    EXPECT_EQ(42, child.exitStatus);
    EXPECT_LT(20, n);
    break;
  }
}

}  // namespace
