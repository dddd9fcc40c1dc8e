// fileLock_test.cpp -- the portable lock: its records, what it makes of everything else that may
// stand in a lock directory, failures and deaths at each step.
//
// Time is the test's own: a sleep moves the clock and returns.

#include "lib/public/fileLock.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <ctime>
#include <fstream>
#include <set>

#include "lib/file/lock/fileLockInt.h"
#include "lib/public/fileIO.h"
#include "platform/processStart.h"
#include "tests/support/process.h"
#include "tests/support/sysFault.h"
#include "tests/support/test.h"

namespace {

using namespace std::chrono_literals;

uint64_t nowMs = 0;

const std::string kElsewhere = "uuid=52-00-00-00-00-00-00-00-00-00-00-00-00-00-00-00";

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
Process Sleeper() {
  return Process({{"/bin/sleep", "1000"}});
}

// A lock or its refusal.
struct Taken {
  FileLockToken *token;
  int err = -1;

  explicit Taken(const std::string &path, bool readOnly = false, uint32_t msecMaxWait = 0) {
    token = FileLock_Lock(path.c_str(), readOnly, msecMaxWait, &err, nullptr);
    EXPECT_TRUE(token != nullptr ? err == 0 : err == errno);
  }
  Taken(const Taken &) = delete;
  ~Taken() { EXPECT_EQ(0, token == nullptr ? 0 : Release()); }
  int Release() {
    int error;
    return FileLock_Unlock(std::exchange(token, nullptr), &error, nullptr) ? 0 : error;
  }
};

class FileLockTest : public testing::Test {
 protected:
  ScratchDir dir_;
  const std::string file_ = dir_.Path("file");
  const std::string lockDir_ = file_ + ".lck";
  const std::string member_ = lockDir_ + "/M00001.lck";
  const std::string here_ = FileLockMachineID();
  const std::string dead_ = IdOf(Sleeper().Pid());

  std::set<std::string> Names() const {
    std::set<std::string> names;
    std::error_code none;
    for (const auto &entry : fs::directory_iterator(lockDir_, none)) {
      names.insert(entry.path().filename());
    }
    return names;
  }
  void PutRecord(const std::string &text, const std::string &name = "M00001.lck") const {
    fs::create_directory(lockDir_);
    dir_.Write("file.lck/" + name, Padded(text));
  }
  bool DirectoryIsGone() const { return !fs::exists(fs::symlink_status(lockDir_)); }
  // What taking the lock, with this result, writes to the log.
  std::string Try(int expected, uint32_t msecMaxWait = 0) const {
    const std::string log =
        LogOf([&] { EXPECT_EQ(expected, Taken(file_, false, msecMaxWait).err); });
    EXPECT_TRUE(std::ranges::all_of(log, [](char c) { return c == '\n' || isprint(c); })) << log;
    return log;
  }
  // The same, and on the clock of the test.
  uint64_t Waits(int expected, uint32_t msecMaxWait) const {
    const uint64_t before = nowMs;
    Try(expected, msecMaxWait);
    return nowMs - before;
  }
  // The same, while something happens right before the nth call of a name, or instead of it.
  std::string Meanwhile(int expected, uint32_t msecMaxWait, const char *call, int nth, int error,
                        const std::function<void()> &before) const {
    const SysFault fault(call, nth, error, before);
    const std::string log = Try(expected, msecMaxWait);
    EXPECT_TRUE(fault.Fired()) << call;
    return log;
  }
  // The path of the only entry that is in the directory, or with another letter.
  std::string Sibling(char letter) const {
    return lockDir_ + "/" + letter + Names().rbegin()->substr(1);
  }
};

TEST_F(FileLockTest, IsEverybodysAndKnowsItsOwner) {
  const mode_t umaskBefore = umask(077);
  Taken lock(file_);
  EXPECT_EQ(077U, umask(umaskBefore));
  EXPECT_EQ(fs::perms::all, fs::status(lockDir_).permissions());
  EXPECT_EQ(fs::perms{0644}, fs::status(Sibling('M')).permissions());
  // A child is somebody else and draws other numbers.
  InChild([&] {
    dir_.Write("drawn", std::to_string(FileSimpleRandom()));
    EXPECT_EQ(EAGAIN, Taken(file_).err);
    EXPECT_EQ(IdOf(getpid()), FileLockOwnExecution().text);
  });
  EXPECT_NE(ReadFile(dir_.Path("drawn")), std::to_string(FileSimpleRandom()));
  // The file by a bare name, and the other way round.
  fs::current_path(dir_.Path());
  EXPECT_EQ(EAGAIN, Taken("file").err);
  EXPECT_EQ(0, lock.Release());
  EXPECT_TRUE(DirectoryIsGone());
  const Taken bare("file");
  EXPECT_EQ(EAGAIN, Taken(file_).err);
}

TEST_F(FileLockTest, SharedLocksGoTogetherOthersWaitInSteps) {
  for (const bool first : {false, true}) {
    const Taken holder(file_, first);
    EXPECT_EQ(first ? 0 : EAGAIN, Taken(dir_.Path("./file"), true).err);
    const std::string line = "FILE: FileLockWaitForPossession timeout on '" + file_ +
                             "' due to a local process '" + IdOf(getpid()) + "'\n";
    EXPECT_EQ(line, Try(EAGAIN, 300));
    for (const uint32_t limit : {300U, 2500U, 60000U}) EXPECT_EQ(limit, Waits(EAGAIN, limit));
    EXPECT_EQ(1U, Names().size());
  }
  std::set<uint32_t> times;
  int error;
  for (int i = 0; i < 100; i++) times.insert(FileSleeper(10, 19, -1, &error));
  EXPECT_TRUE(*times.begin() >= 10 && *times.rbegin() <= 19 && times.size() > 5);
}

TEST_F(FileLockTest, AWaitCanBeGivenUp) {
  const Taken holder(file_);
  const Pipe stop;
  SysFault soon("stat", 5, 0, [&] { EXPECT_EQ(1, write(stop.write.Get(), "", 1)); });
  const uint64_t before = nowMs;
  for (int i = 0; i < 2; i++) {
    int err;
    EXPECT_EQ(nullptr, FileLock_LockCancellable(file_.c_str(), false, FILELOCK_INFINITE_WAIT,
                                                stop.read.Get(), &err, nullptr));
    EXPECT_EQ(ECANCELED, err);
    EXPECT_TRUE(Names().size() == 1 && nowMs > before && nowMs <= before + 300);
  }
  FileIODescriptor fd;
  ASSERT_EQ(FILEIO_SUCCESS,
            FileIO_Open(&fd, file_.c_str(), FILEIO_ACCESS_WRITE, FILEIO_OPEN_CREATE));
  EXPECT_EQ(FILEIO_ERROR,
            FileIO_LockCancellable(&fd, FILEIO_ACCESS_WRITE | FILEIO_FLAG_LOCK_PORTABLE,
                                   stop.read.Get()));
  EXPECT_TRUE(errno == ECANCELED && FileIO_Close(&fd) == FILEIO_SUCCESS);
}

TEST_F(FileLockTest, ChoosersAreWaitedForOnceAndNotTooLong) {
  const auto chooser = [&](const char *number) { return lockDir_ + "/D" + number + ".lck"; };
  // A dead one goes; a member that happens to have its number is somebody else's.
  PutRecord(kElsewhere + " 1-1 7 X 1", "M00007.lck");
  dir_.Write("file.lck/D00007.lck", "");
  EXPECT_EQ(0U, Waits(EAGAIN, 0));
  EXPECT_EQ(500U, Waits(EAGAIN, 500));
  EXPECT_TRUE(fs::exists(chooser("00007")));
  EXPECT_EQ(9000U, Waits(EAGAIN, 9000));
  EXPECT_EQ(std::set<std::string>{"M00007.lck"}, Names());
  fs::remove_all(lockDir_);
  fs::create_directories(chooser("00001"));
  EXPECT_EQ(200U, Waits(EAGAIN, 0));
  // Newcomers do not count, but members that have chosen meanwhile do, and in a long listing also those
  // that it has missed.
  const uint64_t before = nowMs;
  Meanwhile(0, FILELOCK_INFINITE_WAIT, "opendir", 3, 0,
            [&] { fs::rename(chooser("00001"), chooser("00002")); });
  EXPECT_EQ(before + 200, nowMs);
  const auto member = [&] {
    fs::remove(chooser("00002"));
    PutRecord(kElsewhere + " 1-1 1 X 1");
  };
  Meanwhile(EAGAIN, 0, "opendir", 3, 0, member);
  fs::remove(member_);
  for (int i = 10; i < 27; i++) dir_.Write("file.lck/E000" + std::to_string(i) + ".lck", "");
  Meanwhile(EAGAIN, 0, "opendir", 3, 0, member);
}

TEST_F(FileLockTest, WhatHappensMeanwhile) {
  const std::string other = kElsewhere + " 1-1 1 X 1";
  const auto write = [&](char letter) { std::ofstream(Sibling(letter)) << Padded(other); };
  const auto none = [] {};
  // On the way in: the directory, its number or its entry file is there already, or time is up.
  Meanwhile(0, 0, "mkdir", 1, 0, [&] { fs::create_directory(lockDir_); });
  Meanwhile(ENOSPC, 0, "mkdirat", 1, ENOSPC, none);
  EXPECT_TRUE(DirectoryIsGone());
  Meanwhile(EBUSY, 0, "mkdirat", 1, EEXIST, [] { nowMs += 8001; });
  Meanwhile(EAGAIN, 0, "stat", 2, 0, [&] { write('M'); });
  EXPECT_EQ(1U, Names().size());
  fs::remove_all(lockDir_);
  Meanwhile(0, 0, "open", 2, 0, [&] { write('E'); });
  // An answer gets lost; others take us for dead; a person removes everything.
  for (const int error : {ENOENT, EIO})
    Meanwhile(0, 0, "rename", 1, error, [&] { fs::rename(Sibling('E'), Sibling('M')); });
  Meanwhile(ENOENT, 0, "rmdir", 1, 0, [&] { fs::remove(Sibling('D')); });
  EXPECT_TRUE(DirectoryIsGone());
  Meanwhile(ENOENT, 0, "stat", 3, 0, [&] { fs::remove_all(lockDir_); });
  for (const int error : {EROFS, EACCES}) {
    Meanwhile(error, 0, "mkdir", 1, error, none);
    const SysFault readOnly("mkdir", 1, error);
    const std::string log = LogOf([&] { EXPECT_EQ(0, Taken(file_, true).err); });
    EXPECT_NE(std::string::npos, log.find(" implicit S lock succeeded on '" + file_ + "'.\n"));
  }
  // The holder dies, leaves and is followed by another one, or is removed elsewhere.
  Process dying = Sleeper();
  PutRecord(here_ + " " + IdOf(dying.Pid()) + " 1 X 1");
  const std::string gone =
      "FILE: FileLockWaitForPossession discarding file '" + member_ + "'; invalid executionID.\n";
  EXPECT_EQ(gone, Meanwhile(0, 5000, "stat", 5, 0, [&] {
              dying.Signal(SIGKILL);
              dying.Wait();
            }));
  PutRecord(other);
  EXPECT_EQ("", Meanwhile(0, FILELOCK_INFINITE_WAIT, "stat", 3, 0,
                          [&] { PutRecord(kElsewhere + " 1-1 3 X 1"); }));
  for (const auto &[call, nth] : {std::pair{"open", 3}, {"fstat", 1}, {"read", 1}}) {
    PutRecord(other);
    Meanwhile(EAGAIN, 5, call, nth, ESTALE, none);
  }
  // On the way out: first the entry file, and then nobody else's entry directory.
  PutRecord(kElsewhere + " 1-1 -1 X 1");
  Meanwhile(EOVERFLOW, 1, "rmdir", 1, 0, [&] { EXPECT_EQ(2U, Names().size()); });
  PutRecord(other);
  std::string next;
  Meanwhile(EAGAIN, 1, "unlink", 1, 0, [&] { fs::create_directory(next = Sibling('D')); });
  EXPECT_TRUE(fs::exists(next));
}

TEST_F(FileLockTest, WhoseRecordCountsAndWhoseGoes) {
  const Process live = Sleeper();
  const std::string id = IdOf(live.Pid()), pid = std::to_string(live.Pid());
  for (const auto &[record, counts] : {
           std::pair{here_ + " " + id + " 7 X 1 new=a=b lc=1", true},
           {here_ + " " + pid + " 7 X " + id.substr(pid.size() + 1) + " lc=1", true},
           {here_ + " " + pid + " 7 X 1 lc=1", false},
           {here_ + " " + pid + "-1 7 X 1", false},
           {here_ + " " + pid + "-0 7 X 1", true},
           {here_ + " 4294967297-1 7 X 1", true},
           {here_ + " x 7 X 1", true},
           {here_ + " " + dead_ + " 7 X 1", false},
           {kElsewhere + " " + dead_ + " +7x X 1", true},
           {here_ + " " + IdOf(getpid()) + " 7 X 1 lc=1", false},
       }) {
    PutRecord(record);
    const std::string log = Try(counts ? EAGAIN : 0);
    EXPECT_EQ(counts, fs::exists(member_)) << record;
    EXPECT_NE(counts, log.starts_with("FILE: FileLockScanner discarding M00001.lck from " +
                                      lockDir_ + "': "));
  }
}

TEST_F(FileLockTest, OldRecordsOfThisHost) {
  const FileLockOldHost own = {1, 2, 3, 4, 5, 6, 7, 8}, bare = {1, 2, 3, 4};
  EXPECT_TRUE(FileLockSameOldHost(own, {0, 0, 0, 0, 5, 6, 7, 8, 9}));
  EXPECT_FALSE(FileLockSameOldHost(own, {1, 2, 3, 4, 5, 6, 7, 9}));
  EXPECT_TRUE(FileLockSameOldHost(bare, bare));
  EXPECT_FALSE(FileLockSameOldHost(bare, {1, 2, 3, 5}));
  const std::string none(16, 'A'), inside = here_ + "-f0000001-0";
  for (const std::string &id : {none, none.substr(4), inside, kElsewhere}) {
    LogOf([&] { EXPECT_FALSE(OldMachineIDMatch(here_.c_str(), id.c_str())) << id; });
  }
}

TEST_F(FileLockTest, WhatCannotBeARecordGoes) {
  const std::string self = "FILE: FileLockMemberValues ";
  const std::string removing = self + "removing problematic lock file '" + member_ + "'\n";
  PutRecord("m 1-1 \x1Bz\xC2\x9B=1");
  EXPECT_NE(std::string::npos, Try(0).find(self + member_ + " argv[2]: '?z?=1'\n"));
  PutRecord("");
  fs::resize_file(member_, 513);
  EXPECT_EQ(self + "file '" + member_ + "': size 513, required size 512\n" + removing, Try(0));
  // What another name or a link leads to is not shown, and nothing else stops anybody.
  const std::string secret = dir_.Write("secret", Padded("secret"));
  fs::create_directory(lockDir_);
  fs::create_hard_link(secret, member_);
  EXPECT_EQ(removing, Try(0));
  fs::create_directories(lockDir_ + "/M00004.lck");
  fs::create_symlink(secret, member_);
  ASSERT_EQ(0, mknod((lockDir_ + "/M00002.lck").c_str(), S_IFIFO | 0666, 0));
  ASSERT_EQ(0, mknod((lockDir_ + "/M00003.lck").c_str(), S_IFSOCK | 0666, 0));
  EXPECT_EQ(std::string::npos, Try(0).find("'secret'"));
  EXPECT_TRUE(DirectoryIsGone());
}

TEST_F(FileLockTest, WhatIsNoEntryGoes) {
  PutRecord("", "M1234x\xC2\x9B.lck");
  EXPECT_EQ(
      "FILE: FileLockScanner discarding M1234x?.lck from " + lockDir_ + "'; invalid file name.\n",
      Try(0));
  const std::string removed =
      "FILE: FileLockCreateEntryDirectory: '" + lockDir_ + "' is not a directory. Removed.\n";
  dir_.Write("file.lck", "");
  EXPECT_EQ(removed, Try(0));
  fs::create_symlink("nowhere", lockDir_);
  EXPECT_EQ(removed, Try(0));
  // What stays, whatever is done, is in nobody's way.
  PutRecord("", ".nfs0001");
  fs::create_directory(lockDir_ + "/other");
  Try(0);
  EXPECT_EQ((std::set<std::string>{".nfs0001", "other"}), Names());
  fs::remove_all(lockDir_);
  // But a directory that is the lock's by a link alone is neither emptied nor filled, also when the link
  // comes at the last moment.
  fs::create_directory_symlink(".", lockDir_);
  dir_.Write("precious", "");
  const SysFault none("mkdirat", 1, EIO);
  Try(ENOTDIR);
  EXPECT_EQ((std::set<std::string>{"file.lck", "precious"}), Names());
  fs::remove(lockDir_);
  fs::create_directory(lockDir_);
  Meanwhile(ENOTDIR, 0, "open", 1, 0, [&] {
    fs::remove(lockDir_);
    fs::create_directory_symlink(".", lockDir_);
  });
}

// ---- processes ---------------------------------------------------------------------------------

TEST(ProcessStart, IsTheSameForAllWhoAsk) {
  uint64_t own, start;
  ASSERT_TRUE(Platform_ProcessStartTime(getpid(), &own));
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_NAME, "a) R 1 (b");  // stands in the middle of what the host tells
    uint64_t parents, mine;
    const bool same = Platform_ProcessStartTime(getppid(), &parents) && parents == own &&
                      Platform_ProcessStartTime(getpid(), &mine) && mine - own < 60'000'000;
    _exit(same ? 42 : 1);
  }
  siginfo_t info;
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT));
  EXPECT_EQ(42, info.si_status);
  EXPECT_TRUE(!Platform_ProcessStartTime(child, &start) && errno == ESRCH);  // a zombie
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(!Platform_ProcessStartTime(child, &start) && errno == ESRCH);
  // One whose other thread goes on is none.
  const pid_t leader = fork();
  if (leader == 0) {
    std::thread([] { pause(); }).detach();
    syscall(SYS_exit, 0);
  }
  const std::string stat = "/proc/" + std::to_string(leader) + "/stat";
  ASSERT_TRUE(Eventually([&] { return ReadFile(stat).find(") Z ") != std::string::npos; }));
  EXPECT_TRUE(Platform_ProcessStartTime(leader, &start));
  kill(leader, SIGKILL);
  waitpid(leader, nullptr, 0);
  // As where /proc is not there, or not all of it.
  for (int n = 1; n <= 2; n++) {
    const SysFault fault("open", n, ENOENT);
    EXPECT_TRUE(Platform_ProcessStartTime(getpid(), &start) && fault.Fired() && start == 0);
  }
}

// ---- failures and deaths -----------------------------------------------------------------------

// Whatever fails: the lock is held or it is not, and nothing of it is left, unless a removal failed.
TEST_F(FileLockTest, SurvivesTheFailureOfAnySystemCall) {
  const std::set<std::string> removals = {"", "unlink", "rmdir", "opendir", "readdir", "close"};
  for (const int error : {EIO, ENOENT, EEXIST, ENOSPC}) {
    std::string call = "none";
    for (int n = 1; !call.empty(); n++) {
      PutRecord(here_ + " " + dead_ + " 1 X 1");
      LogOf([&] {
        SysFault fault("", n, error);
        Taken lock(file_);
        const bool taken = lock.token != nullptr;
        EXPECT_TRUE(!taken || Names().size() == 1 + Names().count("M00001.lck")) << fault.Call();
        EXPECT_TRUE(!taken || lock.Release() == 0 || fault.Fired());
        call = fault.Call();
      });
      const bool looksGone = call == "stat" && error == ENOENT;
      EXPECT_TRUE(Names().size() == Names().count("M00001.lck") || removals.contains(call) ||
                  looksGone)
          << call;
      fs::remove_all(lockDir_);
    }
  }
}

// A process that is killed anywhere on the way in or out holds nobody up for longer than one step, 10
// seconds later.
TEST_F(FileLockTest, SurvivesADeathAtAnySystemCall) {
  int signal = SIGKILL;
  for (int n = 1; signal != 0; n++) {
    PutRecord(here_ + " " + dead_ + " 1 X 1");
    const ChildResult child = RunInChild([&] {
      SysFault death("", n, 0, [] { raise(SIGKILL); });
      Taken lock(file_);
    });
    for (const std::string &name : Names()) {
      if (name[0] == 'D')
        fs::last_write_time(lockDir_ + "/" + name, fs::file_time_type::clock::now() - 11s);
    }
    EXPECT_GE(200U, Waits(0, 0)) << n;
    EXPECT_TRUE(DirectoryIsGone()) << n;
    signal = child.signal;
    EXPECT_TRUE(signal != 0 || (n > 20 && child.exitStatus == 42)) << n;
  }
}

}  // namespace

extern "C" {
int __wrap_clock_gettime(clockid_t, timespec *now) {
  *now = {static_cast<time_t>(nowMs / 1000), static_cast<long>(nowMs % 1000) * 1'000'000};
  return 0;
}
int __real_poll(pollfd *fds, nfds_t count, int ms);
int __wrap_poll(pollfd *fds, nfds_t count, int ms) {
  const int ready = __real_poll(fds, count, 0);
  if (ready == 0) nowMs += static_cast<uint64_t>(ms);
  return ready;
}
}
