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
#include "msg.h"
#include "msgList.h"
#include "platform/processStart.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"
#include "tests/support/sysFault.h"

namespace fs = std::filesystem;

namespace {
std::atomic<uint64_t> sleptNs{0};
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
}

namespace {

const std::string kElsewhere = "uuid=52-00-00-00-00-00-00-00-00-00-00-00-00-00-00-00";

std::string LogOf(const std::function<void()> &body) {
  return WithoutStamps(CaptureOutput(body));
}

uint64_t SleptMs() {
  return sleptNs / 1'000'000;
}

// "PID-START" of a process.
std::string IdOf(pid_t pid) {
  uint64_t start = 0;
  EXPECT_TRUE(Platform_ProcessStartTime(pid, &start));
  return std::to_string(pid) + "-" + std::to_string(start);
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
  Bystander(const Bystander &) = delete;
  ~Bystander() { End(); }
  void End() const {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
};

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
  void PutRecordOfDead() const { PutRecord(here_ + " " + Bystander().id + " 1 X 1"); }
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
  EXPECT_EQ(077U, umask(umaskBefore));
  EXPECT_EQ(fs::perms::all, fs::status(lockDir_).permissions());
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
  // A child writes its own, with numbers of its own.
  const ChildResult child = RunInChild([&] {
    dprintf(STDOUT_FILENO, "%u\n", FileSimpleRandom());
    const Taken other(file_, true);
    const std::string own = ReadFile(lockDir_ + "/" + *Names().begin());
    if (own.find(" " + IdOf(getpid()) + " 1 S ") == std::string::npos) _exit(1);
  });
  EXPECT_EQ(42, child.exitStatus);
  EXPECT_NE(std::to_string(FileSimpleRandom()) + "\n", child.output);
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
  fs::remove_all(lockDir_);
  // Of equal numbers the lower name goes first; the rival comes when the number has been chosen.
  for (const std::string name : {"M00000.lck", "M99999.lck"}) {
    SysFault rival("rename", 1, 0, [&] { Put(name, Padded(kElsewhere + " 1-1 1 X 1")); });
    EXPECT_EQ("", Try(name == "M00000.lck" ? EAGAIN : 0));
    EXPECT_EQ(std::set<std::string>{name}, Names());
    fs::remove_all(lockDir_);
  }
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
  const std::string dead = Bystander().id;
  const std::string pid = std::to_string(live.pid);
  const std::string start = live.id.substr(pid.size() + 1);
  const std::string discarding =
      "FILE: FileLockScanner discarding M00001.lck from " + lockDir_ + "': ";
  const std::string invalid = discarding + "invalid executionID ";
  const std::string decode = "OldMachineIDMatch: unexpected decode problem #2 (*)\n";
  const auto twice = [](const std::string &id) {
    const std::string doubt =
        "FILE: FileLockValidExecutionID parse error on '" + id + "'. Assuming valid.\n";
    return doubt + doubt;
  };
  struct Row {
    std::string record, type, log;  // what stands before and after the number
    int expected = EAGAIN;
    std::string number = "7";
  };
  Row rows[] = {{live.id, "X 1 new=a=b lc=1 lc=2", ""},
                {live.id, "X 1", ""},
                {pid, "X " + start + " lc=1", ""},
                {pid, "X 1 lc=1", pid + "-1", 0},
                {pid + "-0", "X 1", ""},
                {pid + "-x", "X 1", ""},
                {dead, "X 1", dead, 0},
                {pid + "-1", "X 1", pid + "-1", 0},
                {"0-5", "X 1", "0-5", 0},
                {IdOf(getpid()), "X 1 lc=1", discarding + "lock file has been moved.\n", 0},
                {"x-1", "X 1", twice("x-1")},
                {"-1-2", "X 1", twice("-1-2")},
                {OldMachineID() + " " + dead, "X 1", dead, 0},
                {kElsewhere + " " + dead, "X 1", ""},
                {"* " + dead, "X 1", decode + decode + decode},
                {live.id, "X 1", "", EOVERFLOW, "4294967295"}};
  for (Row &row : rows) {
    const bool isWhole = row.record.find(' ') != std::string::npos;
    PutRecord((isWhole ? "" : here_ + " ") + row.record + " " + row.number + " " + row.type);
    if (row.expected == 0 && !row.log.ends_with('\n')) row.log = invalid + row.log + ".\n";
    EXPECT_EQ(row.log, Try(row.expected)) << row.record;
    EXPECT_EQ(row.expected == 0, DirectoryIsGone());
  }
  PutRecord(kElsewhere + " " + dead + " 7 X 1");
  EXPECT_EQ(TimeOutLine("another machine '" + kElsewhere), Try(EAGAIN, 60));
}

TEST_F(FileLockTest, WhatCannotBeARecordGoes) {
  const std::string self = "FILE: FileLockMemberValues ";
  const std::string removing = self + "removing problematic lock file '" + member_ + "'\n";
  std::string many = "m 1-1 1 X 1";
  for (int i = 0; i < 11; i++) many += " a=b";
  // The text, and its tokens with blanks between them if they are not the same.
  const std::pair<std::string, std::string> rows[] = {{"", ""},
                                                      {"m 1-1 1 X", ""},
                                                      {"m 1-1 x X 1 lc=1", ""},
                                                      {"m 1-1 4294967296 X 1", ""},
                                                      {"m 1-1 1 Y 1", ""},
                                                      {"m 1-1 1 X 1 lc", ""},
                                                      {"m 1-1 1 X 1 =1", ""},
                                                      {"m 1-1 1 X 1 lc=", ""},
                                                      {"m\n 1-1 1 Y 1 \x01=1", "m? 1-1 1 Y 1 ?=1"},
                                                      {"m 1 1 Y 7 lc=1", "m 1-7 1 Y 7 lc=1"},
                                                      {many + " a=b", many},
                                                      {std::string(512, 'x'), ""}};
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
  // What a link names is not read, or not told, and a FIFO stops nobody.
  const std::string secret = dir_.Write("secret", Padded("secret"));
  fs::create_directory(lockDir_);
  fs::create_symlink(secret, member_);
  ASSERT_EQ(0, mkfifo((lockDir_ + "/M00002.lck").c_str(), 0666));
  EXPECT_TRUE(Try(0).find(removing) != std::string::npos && DirectoryIsGone());
  fs::create_directory(lockDir_);
  fs::create_hard_link(secret, member_);
  EXPECT_EQ(removing, Try(0));
  EXPECT_TRUE(fs::exists(secret));
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
            log.find("FILE: FileLockRemoveLockingFile of '" + lockDir_ + "/foreign' failed: "));
  EXPECT_EQ((std::set<std::string>{"\xFF", "foreign"}), Names());
  // Nor is a directory emptied that is the lock's by a link alone.
  fs::rename(lockDir_, dir_.Path("others"));
  fs::remove(dir_.Path("others/foreign"));
  dir_.Write("others/precious", "");
  fs::create_directory_symlink("others", lockDir_);
  LogOf([&] { EXPECT_NE(0, Taken(file_).err); });
  EXPECT_EQ((std::set<std::string>{"\xFF", "precious"}), Names());
}

TEST_F(FileLockTest, WhoChoosesForTooLongIsDiscarded) {
  for (const bool isFile : {false, true}) {
    Put("E00001.lck", "");
    PutRecord(kElsewhere + " 1-1 1 X 1");
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
  fs::create_symlink("nowhere", lockDir_);
  SysFault late("mkdir", 3, 0, [] { sleptNs += 8'001'000'000; });
  EXPECT_EQ(self + " lack of progress on '" + lockDir_ + "'\n", Try(EBUSY));
}

// As an ordinary user: for root everything is writable.
TEST_F(FileLockTest, WhereNobodyMayWriteSharedLocksAreGranted) {
  for (const bool lockDirThere : {false, true}) {
    EXPECT_TRUE(!lockDirThere || mkdir(lockDir_.c_str(), 0555) == 0);
    chmod(dir_.Path().c_str(), 0555);
    const ChildResult child = RunInChild([&] {
      if (geteuid() == 0 && setuid(65534) != 0) _exit(1);
      Taken shared(file_, true);
      if (shared.err != 0 || shared.Release() != 0 || Taken(file_).err != EACCES) _exit(2);
    });
    EXPECT_EQ(42, child.exitStatus);
    const std::string granted =
        "FileLockIntrinsicPortable implicit S lock succeeded on '" + file_ + "'.\n";
    EXPECT_NE(std::string::npos, child.output.find("FILE: " + granted));
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
    const Taken lock(holder);
    EXPECT_EQ("", LogOf([&] {
                for (const std::string &other : paths) EXPECT_EQ(EAGAIN, Taken(other).err);
              }))
        << holder;
  }
  fs::current_path(before);
  Taken lost(file_);
  fs::remove_all(lockDir_);
  EXPECT_EQ(ENOENT, lost.Release());
}

// The number may be another one's as soon as the member file has gone.
TEST_F(FileLockTest, WhoGivesUpLeavesTheNextOneAlone) {
  PutRecord(kElsewhere + " 1-1 1 X 1");
  std::string next;
  SysFault heir("unlink", 1, 0, [&] {
    next = lockDir_ + "/D" + Names().rbegin()->substr(1);
    fs::create_directory(next);
  });
  EXPECT_EQ("", Try(EAGAIN));
  EXPECT_TRUE(fs::exists(next));
}

TEST_F(FileLockTest, AFileIsOpenedUnderItsLock) {
  const auto open = [&](FileIODescriptor *fd, uint32_t access) {
    return FileIO_Open(fd, file_.c_str(), access, FILEIO_OPEN_CREATE);
  };
  FileIODescriptor fd, other;
  ASSERT_EQ(FILEIO_SUCCESS, open(&fd, FILEIO_ACCESS_WRITE | FILEIO_FLAG_LOCK_DEFAULT));
  const uint64_t before = SleptMs();
  const std::string log = LogOf([&] {
    EXPECT_TRUE(open(&other, FILEIO_FLAG_LOCK_PORTABLE) == FILEIO_ERROR && errno == EAGAIN);
  });
  EXPECT_TRUE(
      log.ends_with("FILE: FileIO_Lock on '" + file_ + "' failed: " + strerror(EAGAIN) + "\n"));
  const MsgListOwner pending(Msg_TakePending());
  ASSERT_NE(nullptr, pending.get());
  EXPECT_STREQ("msg.fileLock.posix", pending->id);
  EXPECT_TRUE(SleptMs() - before >= 3450 && SleptMs() - before <= 3850) << SleptMs() - before;
  EXPECT_EQ(FILEIO_SUCCESS, FileIO_Close(&fd));
  EXPECT_TRUE(DirectoryIsGone());
}

// Whatever fails: the lock is held or it is not, and nothing of it is left, unless a removal failed.
TEST_F(FileLockTest, SurvivesTheFailureOfAnySystemCall) {
  const std::set<std::string> removals = {"unlink", "rmdir", "opendir", "readdir", "close"};
  for (const int error : {EIO, ENOENT, EEXIST, ENOSPC}) {
    bool fired = true;
    for (int n = 1; fired; n++) {
      PutRecordOfDead();
      SysFault fault("", n, error);
      CaptureOutput([&] {
        Taken lock(file_);
        EXPECT_EQ(lock.token == nullptr, !lock.message.empty());
        if (lock.token == nullptr) return;
        EXPECT_EQ(1U, Names().size() - Names().count("M00001.lck")) << fault.Call();
        EXPECT_TRUE(lock.Release() == 0 || fault.Fired());
      });
      fault.Disarm();
      fired = fault.Fired();
      std::set<std::string> left = Names();
      left.erase("M00001.lck");
      EXPECT_TRUE(left.empty() || removals.contains(fault.Call())) << fault.Call() << ' ' << n;
      fs::remove_all(lockDir_);
    }
  }
}

// Who is killed anywhere on the way in or out holds nobody up for more than 8.4 seconds.
TEST_F(FileLockTest, SurvivesADeathAtAnySystemCall) {
  int signal = SIGKILL;
  for (int n = 1; signal != 0; n++) {
    PutRecordOfDead();
    const ChildResult child = RunInChild([&] {
      SysFault death("", n, 0, [] { raise(SIGKILL); });
      Taken lock(file_);
      _exit(lock.Release() == 0 ? 42 : 1);
    });
    const uint64_t before = SleptMs();
    Try(0, 10);
    EXPECT_GE(42 * 200U, SleptMs() - before) << n;
    EXPECT_TRUE(DirectoryIsGone()) << n;
    signal = child.signal;
    EXPECT_TRUE(signal != 0 || (n > 20 && child.exitStatus == 42)) << n;
  }
}

}  // namespace
