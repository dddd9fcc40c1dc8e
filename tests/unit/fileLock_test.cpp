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
#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

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

std::string Lines(std::initializer_list<std::string> lines) {
  std::string text;
  for (const std::string &line : lines) text += line + "\n";
  return text;
}

uint64_t SleptMs() {
  return sleptNs / 1'000'000;
}

uint64_t StartOf(pid_t pid) {
  uint64_t start = 0;
  EXPECT_TRUE(Platform_ProcessStartTime(pid, &start));
  return start;
}

std::string IdOf(pid_t pid, uint64_t start) {
  return std::to_string(pid) + "-" + std::to_string(start);
}

std::string OwnId() {
  return IdOf(getpid(), StartOf(getpid()));
}

std::string Djb2(const std::string &text) {
  uint64_t hash = 5381;
  for (const char c : text) hash = (hash * 33 + static_cast<unsigned char>(c)) % (1ULL << 32);
  return std::to_string(hash);
}

std::string RecordOf(const std::string &machine, const std::string &execution,
                     const std::string &number, const std::string &type) {
  return machine + " " + execution + " " + number + " " + type + " 1 lc=1";
}

std::string Padded(std::string text) {
  text.resize(512, '\0');
  return text;
}

// A process that is there until the end of the scope.
class Bystander {
  pid_t pid_ = fork();

 public:
  Bystander() {
    if (pid_ == 0) {
      for (;;) pause();
    }
  }
  Bystander(const Bystander &) = delete;
  Bystander &operator=(const Bystander &) = delete;
  ~Bystander() {
    Kill();
    waitpid(pid_, nullptr, 0);
  }
  void Kill() const { kill(pid_, SIGKILL); }
  pid_t Pid() const { return pid_; }
  std::string Id() const { return IdOf(pid_, StartOf(pid_)); }
};

std::string IdOfDead() {
  const Bystander gone;
  return gone.Id();
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
  ~Taken() {
    if (token != nullptr) {
      EXPECT_EQ(0, Release());
    }
  }
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

  std::set<std::string> Names() const {
    std::set<std::string> names;
    std::error_code none;
    for (const auto &entry : fs::directory_iterator(lockDir_, none)) {
      names.insert(entry.path().filename());
    }
    return names;
  }
  std::string Put(const std::string &name, const std::string &content) const {
    fs::create_directory(lockDir_);
    return dir_.Write("file.lck/" + name, content);
  }
  std::string PutMember(const std::string &name, const std::string &machine,
                        const std::string &execution, const std::string &type) const {
    return Put(name, Padded(RecordOf(machine, execution, "1", type)));
  }
  bool DirectoryIsGone() const { return !fs::exists(fs::symlink_status(lockDir_)); }
};

TEST_F(FileLockTest, LeavesARecordForOtherPrograms) {
  const mode_t umaskBefore = umask(077);
  Taken lock(file_);
  umask(umaskBefore);
  ASSERT_EQ(0, lock.err);
  struct stat info;
  ASSERT_EQ(0, stat(lockDir_.c_str(), &info));
  EXPECT_EQ(0777U, info.st_mode & 07777);
  ASSERT_EQ(1U, Names().size());
  const std::string name = *Names().begin();
  EXPECT_TRUE(std::regex_match(name, std::regex("M[0-9]{5}\\.lck")) && name <= "M65535.lck");

  // What a reader makes of it who knows the format and nothing of this code.
  const std::string record = ReadFile(lockDir_ + "/" + name);
  ASSERT_EQ(512U, record.size());
  const std::string text = record.substr(0, record.find('\0'));
  EXPECT_EQ(Padded(text), record);
  std::istringstream in(text);
  std::string machine, execution, number, type, start, payload, more;
  in >> machine >> execution >> number >> type >> start >> payload;
  EXPECT_FALSE(in >> more);
  EXPECT_TRUE(std::regex_match(machine, std::regex("uuid=52(-[0-9a-f]{2}){15}"))) << machine;
  EXPECT_EQ(OwnId(), execution);
  EXPECT_EQ(execution, std::to_string(getpid()) + "-" + start);
  EXPECT_EQ("1", number);
  EXPECT_EQ("X", type);
  EXPECT_EQ("lc=" + Djb2(lockDir_), payload);

  EXPECT_EQ(0, lock.Release());
  EXPECT_TRUE(DirectoryIsGone());
  // A child is another process.
  EXPECT_EQ(42, RunInChild([&] {
                  const Taken other(file_, true);
                  const std::string own = ReadFile(lockDir_ + "/" + *Names().begin());
                  if (own.find(" " + OwnId() + " 1 S ") == std::string::npos) _exit(1);
                }).exitStatus);
}

TEST_F(FileLockTest, SharedLocksGoTogetherOthersWaitInSteps) {
  for (const bool first : {false, true}) {
    for (const bool second : {false, true}) {
      const Taken holder(file_, first);
      for (const uint32_t limit : {0U, 300U, 2500U, 60000U}) {
        const uint64_t before = SleptMs();
        const std::string log = LogOf([&] {
          const Taken other(file_, second, limit);
          EXPECT_EQ(first && second ? 0 : EAGAIN, other.err);
          if (other.err == 0) return;
          EXPECT_EQ("A file locking error (" + std::to_string(EAGAIN) +
                        ") has occurred: " + strerror(EAGAIN) + ".\n",
                    other.message);
        });
        const uint64_t waited = SleptMs() - before;
        if (limit == 0 || (first && second)) {
          EXPECT_EQ(0U, waited);
          EXPECT_EQ("", log);
          continue;
        }
        const uint64_t step = limit < 2000 ? 100 : limit < 20000 ? limit / 10 : 2000;
        EXPECT_TRUE(waited + 50 >= limit && waited <= limit + step) << waited;
        EXPECT_EQ(Lines({"FILE: FileLockWaitForPossession timeout on '" + file_ +
                         "' due to a local process '" + OwnId() + "'"}),
                  log);
      }
      EXPECT_EQ(1U, Names().size());
    }
  }
  EXPECT_TRUE(DirectoryIsGone());
}

TEST_F(FileLockTest, TheLowerNumberGoesFirstThenTheLowerName) {
  const Bystander live;
  const std::string id = live.Id();
  struct Row {
    uint32_t number;
    const char *name;
    const char *type;
    int expected;
  };
  for (const Row &row : {
           Row{1, "M60000.lck", "X", EAGAIN},
           Row{1, "M60000.lck", "S", 0},
           Row{2, "M00001.lck", "X", EAGAIN},
           Row{2, "M60000.lck", "X", 0},
           Row{3, "M00001.lck", "X", 0},
       }) {
    FileLockRequest request{
        .path = file_.c_str(),
        .lockDir = lockDir_.c_str(),
        .msecMaxWait = 0,
        .startMs = 0,
        .startTime = 1,
        .me = {FileLockMachineID(), "1-1", kFileLockShared, "M30000.lck", nullptr, 2}};
    const FileLockMember other{FileLockMachineID(), id.c_str(), row.type, row.name, nullptr,
                               row.number};
    EXPECT_EQ(row.expected, FileLockWaitForPossession(lockDir_.c_str(), row.name, other, &request));
  }
}

// Another one may draw the number of somebody who has left; his record is not that one's.
TEST_F(FileLockTest, ASuccessorUnderTheSameNameIsNotWaitedFor) {
  const Bystander live;
  const std::string member = PutMember("M00001.lck", FileLockMachineID(), live.Id(), "X");
  SysFault swap("stat", 5, 0, [&] {
    dir_.Write("file.lck/M00001.lck", Padded(RecordOf(FileLockMachineID(), live.Id(), "3", "X")));
  });
  EXPECT_EQ(0, Taken(file_, false, FILELOCK_INFINITE_WAIT).err);
  EXPECT_TRUE(swap.Fired());
}

TEST_F(FileLockTest, WhoDiesIsReplacedAndWhoLivesElsewhereIsNot) {
  const Bystander live;
  const Bystander dying;
  const std::string here = FileLockMachineID();
  const std::string dead = IdOfDead();
  const std::string early = IdOf(live.Pid(), StartOf(live.Pid()) - 1);
  char old[64];
  {  // this machine as it was once called: only the middle third counts
    uint32_t hash;
    uint64_t hardware;
    Hostinfo_MachineID(&hash, &hardware);
    unsigned char bytes[12] = {'o', 'l', 'd'};
    memcpy(bytes + 4, &hardware, sizeof hardware);
    bytes[11] = 0xFF;
    ASSERT_TRUE(Base64_Encode(bytes, sizeof bytes, old, sizeof old, nullptr));
    for (char &c : old) c = c == '/' ? '-' : c;
  }
  const std::string discarding =
      "FILE: FileLockScanner discarding M00001.lck from " + lockDir_ + "': ";
  const auto timeout = [&](const std::string &who) {
    return "FILE: FileLockWaitForPossession timeout on '" + file_ + "' due to " + who + "'\n";
  };
  const auto invalid = [&](const std::string &id) {
    return discarding + "invalid executionID " + id + ".\n";
  };
  struct Row {
    std::string machine, execution;
    int expected;
    std::string log;
  };
  for (const Row &row : {
           Row{here, live.Id(), EAGAIN, timeout("a local process '" + live.Id())},
           Row{here, dead, 0, invalid(dead)},
           Row{here, early, 0, invalid(early)},
           Row{here, IdOf(live.Pid(), 0), EAGAIN,
               timeout("a local process '" + IdOf(live.Pid(), 0))},
           Row{here, std::to_string(live.Pid()) + "-x", EAGAIN,
               timeout("a local process '" + std::to_string(live.Pid()) + "-x")},
           Row{here, "0-5", 0, invalid("0-5")},
           Row{here, OwnId(), 0, discarding + "lock file has been moved.\n"},
           Row{old, dead, 0, invalid(dead)},
           Row{kElsewhere, dead, EAGAIN, timeout(std::string("another machine '") + kElsewhere)},
           Row{"AAAAAAAAAAAAAAAA", live.Id(), EAGAIN, timeout("")},
           Row{"*", dead, EAGAIN, timeout("")},
       }) {
    PutMember("M00001.lck", row.machine, row.execution, "X");
    const std::string log = LogOf([&] { EXPECT_EQ(row.expected, Taken(file_, false, 60).err); });
    if (row.machine == "*") {
      const std::string problem = "OldMachineIDMatch: unexpected decode problem #2 (*)\n";
      EXPECT_TRUE(log.starts_with(problem)) << log;
    } else if (row.machine[0] != 'A') {
      EXPECT_EQ(row.log, log) << row.machine << ' ' << row.execution;
    }
  }
  for (const char *const id : {"x-1", "-1-2", "99999999999-1"}) {
    PutMember("M00001.lck", here, id, "X");
    const std::string line =
        std::string("FILE: FileLockValidExecutionID parse error on '") + id + "'. Assuming valid.";
    EXPECT_EQ(Lines({line, line}), LogOf([&] { EXPECT_EQ(EAGAIN, Taken(file_).err); }));
  }
  // Who dies while somebody waits.  A zombie lives, until it is waited for.
  const std::string path = PutMember("M00001.lck", here, dying.Id(), "X");
  SysFault death("stat", 6, 0, [&] {
    dying.Kill();
    waitpid(dying.Pid(), nullptr, 0);
  });
  const std::string id = dying.Id();
  const std::string log = LogOf([&] { EXPECT_EQ(0, Taken(file_, false, 5000).err); });
  EXPECT_EQ(Lines({"FILE: FileLockWaitForPossession discarding file '" + path +
                   "'; invalid executionID."}),
            log);
  EXPECT_TRUE(DirectoryIsGone());
}

TEST_F(FileLockTest, WhatCannotBeARecordGoes) {
  const std::string here = FileLockMachineID();
  const std::string path = lockDir_ + "/M00001.lck";
  const std::string self = "FILE: FileLockMemberValues ";
  const std::string removing = self + "removing problematic lock file '" + path + "'\n";
  struct Row {
    std::string text;
    std::vector<std::string> tokens;
  };
  std::string seventeen = "m 1-1 1 X 1";
  std::vector<std::string> sixteenTokens = {"m", "1-1", "1", "X", "1"};
  for (int i = 0; i < 12; i++) {
    seventeen += " a=b";
    if (i < 11) sixteenTokens.push_back("a=b");
  }
  for (const Row &row : {
           Row{"", {}},
           Row{"m 1-1 1 X", {"m", "1-1", "1", "X"}},
           Row{"m 1-1 x X 1 lc=1", {"m", "1-1", "x", "X", "1", "lc=1"}},
           Row{"m 1-1 4294967296 X 1", {"m", "1-1", "4294967296", "X", "1"}},
           Row{"m 1-1 1 Y 1", {"m", "1-1", "1", "Y", "1"}},
           Row{"m 1-1 1 X 1 lc", {"m", "1-1", "1", "X", "1", "lc"}},
           Row{"m 1-1 1 X 1 =1", {"m", "1-1", "1", "X", "1", "=1"}},
           Row{"m 1-1 1 X 1 lc=", {"m", "1-1", "1", "X", "1", "lc="}},
           Row{"m\n 1-1 1 Y 1 \x01=1", {"m?", "1-1", "1", "Y", "1", "?=1"}},
           Row{"m 1 1 Y 7 lc=1", {"m", "1-7", "1", "Y", "7", "lc=1"}},  // old
           Row{seventeen, sixteenTokens},
           Row{std::string(512, 'x'), {std::string(512, 'x')}},
       }) {
    Put("M00001.lck", Padded(row.text));
    std::string expected = removing + self + "'" + path + "' contents are:\n";
    for (size_t i = 0; i < row.tokens.size(); i++) {
      expected += self + path + " argv[" + std::to_string(i) + "]: '" + row.tokens[i] + "'\n";
    }
    // Looked at twice: while the number is chosen and while waiting; it is gone the second time.
    EXPECT_EQ(expected, LogOf([&] { EXPECT_EQ(0, Taken(file_).err); })) << row.text;
  }
  for (const size_t size : {0U, 511U, 513U}) {
    Put("M00001.lck", std::string(size, 'x'));
    EXPECT_EQ(self + "file '" + path + "': size " + std::to_string(size) + ", required size 512\n" +
                  removing,
              LogOf([&] { EXPECT_EQ(0, Taken(file_).err); }));
  }
  // Neither what a link names is read, nor does a FIFO stop anybody.
  const std::string secret = dir_.Write("secret", Padded("secret"));
  Put("dummy", "");
  fs::create_symlink(secret, path);
  ASSERT_EQ(0, mkfifo((lockDir_ + "/M00002.lck").c_str(), 0666));
  const std::string log = LogOf([&] { EXPECT_EQ(0, Taken(file_).err); });
  EXPECT_NE(std::string::npos, log.find(removing)) << log;
  EXPECT_EQ(std::string::npos, log.find("secret")) << log;
  EXPECT_TRUE(fs::exists(secret));
  EXPECT_TRUE(DirectoryIsGone());
}

TEST_F(FileLockTest, OldRecordsAndUnknownKeysAreUnderstood) {
  const Bystander live;
  const std::string here = FileLockMachineID();
  const std::string old =
      std::to_string(live.Pid()) + " 7 X " + std::to_string(StartOf(live.Pid()));
  for (const std::string &record : {here + " " + old + " lc=1", here + " " + live.Id() + " 7 X 1",
                                    here + " " + live.Id() + "  7 X 1 new=a=b lc=1 lc=2"}) {
    Put("M00001.lck", Padded(record));
    EXPECT_EQ("", LogOf([&] {
                const Taken after(file_, false);
                EXPECT_EQ(EAGAIN, after.err);
              }));
    FileLockRecord buffer;
    FileLockMember member;
    EXPECT_EQ(0, FileLockMemberValues(lockDir_.c_str(), "M00001.lck", &buffer, &member));
    EXPECT_EQ(here + " " + live.Id() + " 7 X",
              std::string(member.machineID) + " " + member.executionID + " " +
                  std::to_string(member.number) + " " + member.lockType);
  }
  // The highest number has no successor.
  Put("M00001.lck", Padded(RecordOf(here, live.Id(), "4294967295", "X")));
  EXPECT_EQ(EOVERFLOW, Taken(file_).err);
  EXPECT_EQ(std::set<std::string>{"M00001.lck"}, Names());
}

TEST_F(FileLockTest, OnlyNamesOfEntriesStay) {
  std::string expected;
  for (const char *const name : {"M1234.lck", "M1234x.lck", "m12345.lck", "M12345.lc", ".nfs01"}) {
    Put(name, "");
    const std::string log = LogOf([&] { EXPECT_EQ(0, Taken(file_).err); });
    EXPECT_EQ("FILE: FileLockScanner discarding " + std::string(name) + " from " + lockDir_ +
                  "'; invalid file name.\n",
              log);
  }
  // A name that cannot be told stays, and harms nobody; a directory is not removed by force.
  Put("\xFF", "");
  EXPECT_EQ(0, Taken(file_).err);
  EXPECT_EQ(std::set<std::string>{"\xFF"}, Names());
  fs::create_directory(lockDir_ + "/foreign");
  const std::string log = LogOf([&] { EXPECT_NE(0, Taken(file_).err); });
  EXPECT_NE(std::string::npos,
            log.find("FILE: FileLockRemoveLockingFile of '" + lockDir_ + "/foreign' failed: "))
      << log;
  EXPECT_EQ((std::set<std::string>{"\xFF", "foreign"}), Names());
}

TEST_F(FileLockTest, WhoChoosesForTooLongIsDiscarded) {
  for (const bool isFile : {false, true}) {
    Put("E00007.lck", "");
    PutMember("M00007.lck", kElsewhere, "1-1", "X");
    const std::string entry = lockDir_ + "/D00007.lck";
    EXPECT_TRUE(isFile ? std::ofstream(entry).good() : fs::create_directory(entry));
    const uint64_t before = SleptMs();
    const std::string log = LogOf([&] { EXPECT_EQ(0, Taken(file_).err); });
    EXPECT_EQ("FILE: FileLockScanner discarding D00007.lck data from '" + lockDir_ + "'.\n", log);
    EXPECT_EQ(42 * 200U, SleptMs() - before);  // 41 looks at it, and one after
    EXPECT_TRUE(DirectoryIsGone());
  }
}

TEST_F(FileLockTest, WhatStandsInTheWayOfTheDirectory) {
  dir_.Write("file.lck", "");
  EXPECT_EQ("FILE: FileLockCreateEntryDirectory: '" + lockDir_ + "' is not a directory. Removed.\n",
            LogOf([&] { EXPECT_EQ(0, Taken(file_).err); }));
  const std::string missing = dir_.Path("none/file");
  const std::string log = LogOf([&] { EXPECT_EQ(ENOENT, Taken(missing).err); });
  EXPECT_EQ("FILE: FileLockCreateEntryDirectory creation failure on '" + missing +
                ".lck': " + strerror(ENOENT) + "\n",
            log);
}

// As an ordinary user: for root everything is writable.
TEST_F(FileLockTest, WhereNobodyMayWriteSharedLocksAreGranted) {
  const auto asUser = [&](mode_t dirMode, bool lockDirThere) {
    chmod(dir_.Path().c_str(), dirMode);
    if (lockDirThere) fs::create_directory(lockDir_);
    const ChildResult child = RunInChild([&] {
      if (geteuid() == 0 && setuid(65534) != 0) _exit(1);
      Taken shared(file_, true);
      if (shared.err != 0 || shared.Release() != 0) _exit(2);
      if (Taken(file_, false).err != EACCES) _exit(3);
    });
    EXPECT_EQ(42, child.exitStatus);
    const std::string log = WithoutStamps(child.output);
    EXPECT_NE(std::string::npos, log.find("FILE: FileLockIntrinsicPortable implicit S lock "
                                          "succeeded on '" +
                                          file_ + "'.\n"))
        << log;
  };
  asUser(0555, false);
  asUser(0555, true);
}

TEST_F(FileLockTest, OneFileUnderManyPathsIsOneLock) {
  fs::create_directory(dir_.Path("sub"));
  fs::create_directory_symlink("sub", dir_.Path("link"));
  const fs::path before = fs::current_path();
  fs::current_path(dir_.Path("sub"));
  const std::vector<std::string> paths = {"file", "./file", dir_.Path("sub/file"),
                                          dir_.Path("link//file"), "../link/file"};
  for (const std::string &holder : paths) {
    for (const std::string &other : paths) {
      const Taken lock(holder);
      EXPECT_EQ("", LogOf([&] { EXPECT_EQ(EAGAIN, Taken(other).err) << holder << ' ' << other; }));
    }
  }
  fs::current_path(before);
}

TEST_F(FileLockTest, ALostEntryIsReportedAtTheEnd) {
  Taken lock(file_);
  fs::remove_all(lockDir_);
  EXPECT_EQ(ENOENT, lock.Release());
}

TEST_F(FileLockTest, AFileIsOpenedUnderItsLock) {
  FileIODescriptor fd;
  ASSERT_EQ(FILEIO_SUCCESS,
            FileIO_Open(&fd, file_.c_str(), FILEIO_ACCESS_WRITE | FILEIO_FLAG_LOCK_DEFAULT,
                        FILEIO_OPEN_CREATE));
  EXPECT_EQ(1U, Names().size());
  FileIODescriptor other;
  const uint64_t before = SleptMs();
  const std::string log = LogOf([&] {
    EXPECT_EQ(FILEIO_ERROR,
              FileIO_Open(&other, file_.c_str(), FILEIO_ACCESS_READ | FILEIO_FLAG_LOCK_PORTABLE,
                          FILEIO_OPEN));
    EXPECT_EQ(EAGAIN, errno);
  });
  EXPECT_NE(std::string::npos,
            log.find("FILE: FileIO_Lock on '" + file_ + "' failed: " + strerror(EAGAIN)));
  EXPECT_TRUE(SleptMs() - before >= 3450 && SleptMs() - before <= 3850) << SleptMs() - before;
  EXPECT_EQ(FILEIO_SUCCESS, FileIO_Close(&fd));
  EXPECT_TRUE(DirectoryIsGone());
  nativeIsDefault = true;
  EXPECT_EQ(ENOTSUP, Taken(file_).err);
  EXPECT_EQ(FILEIO_LOCK_FAILED,
            FileIO_Open(&fd, file_.c_str(), FILEIO_FLAG_LOCK_DEFAULT, FILEIO_OPEN));
  nativeIsDefault = false;
}

// Whatever fails: the lock is held or it is not, and there is nothing of it left, unless the removal
// itself failed; a next one gets through in any case.
TEST_F(FileLockTest, SurvivesTheFailureOfAnySystemCall) {
  const std::set<std::string> removals = {"unlink", "rmdir", "opendir", "readdir", "close"};
  for (const int error : {EIO, ENOENT, EEXIST, ENOSPC}) {
    for (int n = 1;; n++) {
      PutMember("M00001.lck", FileLockMachineID(), IdOfDead(), "X");
      SysFault fault("", n, error);
      CaptureOutput([&] {
        Taken lock(file_);
        if (lock.token != nullptr) {
          EXPECT_EQ(1U, Names().size() - Names().count("M00001.lck")) << fault.Call();
          const int released = std::exchange(lock.err, lock.Release());
          EXPECT_TRUE(released == 0 || fault.Fired());
        } else {
          EXPECT_NE("", lock.message);
        }
      });
      fault.Disarm();
      if (!fault.Fired()) break;
      if (!removals.contains(fault.Call())) {
        std::set<std::string> left = Names();
        left.erase("M00001.lck");
        EXPECT_EQ(std::set<std::string>{}, left) << fault.Call() << ' ' << n;
      }
      // What a failed removal has left belongs to a live process: this one.
      fs::remove_all(lockDir_);
    }
  }
}

// Who is killed anywhere on the way in or out holds nobody up for more than 8.4 seconds.
TEST_F(FileLockTest, SurvivesADeathAtAnySystemCall) {
  for (const bool crowded : {false, true}) {
    for (int n = 1;; n++) {
      if (crowded) PutMember("M00001.lck", FileLockMachineID(), IdOfDead(), "X");
      const ChildResult child = RunInChild([&] {
        SysFault death("", n, 0, [] { raise(SIGKILL); });
        Taken lock(file_);
        _exit(lock.Release() == 0 ? 42 : 1);
      });
      const uint64_t before = SleptMs();
      CaptureOutput([&] { EXPECT_EQ(0, Taken(file_, false, 10).err) << n; });
      EXPECT_GE(42 * 200U, SleptMs() - before) << n;
      EXPECT_TRUE(DirectoryIsGone()) << n;
      if (child.signal == 0) {
        EXPECT_EQ(42, child.exitStatus);
        EXPECT_LT(20, n);
        break;
      }
    }
  }
}

}  // namespace
