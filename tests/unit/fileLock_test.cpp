// fileLock_test.cpp -- the portable lock: its records, what it makes of everything else that may
// stand in a lock directory, failures and deaths at each step.
//
// Time is the test's own: a sleep moves the clock and returns.

#include "lib/public/fileLock.h"

#include <ifaddrs.h>
#include <netpacket/packet.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <ctime>
#include <fstream>
#include <set>

#include "lib/file/lock/fileLockInt.h"
#include "lib/public/base64.h"
#include "lib/public/fileIO.h"
#include "lib/public/hostinfo.h"
#include "platform/processStart.h"
#include "tests/support/process.h"
#include "tests/support/sysFault.h"
#include "tests/support/test.h"

namespace {

uint64_t nowMs = 0;
bool hasHardware = false;  // an interface with an address

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

// Before any other test, since a process finds out once which machine it is on.
TEST(MachineID, OldRecordsGoByTheHardwareOrByTheWhole) {
  for (const bool hardware : {false, true}) {
    InChild([&] {
      hasHardware = hardware;
      uint32_t hash;
      uint64_t address;
      Hostinfo_MachineID(&hash, &address);
      for (const auto &[nameDelta, addressDelta, same] : {
               std::tuple{0U, 0ULL, true},
               {1U, 0ULL, hardware},
               {0U, 1ULL, false},
               {0U, 1ULL << 40, hardware},
           }) {
        const uint32_t name = hash + nameDelta;
        const uint64_t id = address ^ addressDelta;
        std::string bytes(reinterpret_cast<const char *>(&name), sizeof name);
        bytes.append(reinterpret_cast<const char *>(&id), sizeof id);
        char text[64];
        ASSERT_TRUE(Base64_Encode(bytes.data(), bytes.size(), text, sizeof text, nullptr));
        std::replace(text, text + strlen(text), '/', '-');
        EXPECT_EQ(same, OldMachineIDMatch(FileLockMachineID(), text)) << hardware << nameDelta;
      }
      EXPECT_FALSE(OldMachineIDMatch(FileLockMachineID(), "AAAA"));
      const std::string inside = std::string(FileLockMachineID()) + "-f0000001-0";
      EXPECT_FALSE(OldMachineIDMatch(FileLockMachineID(), inside.c_str()));
    });
  }
}

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
  // The name of the entry that is in the directory, with another letter.
  std::string Sibling(char letter) const {
    return lockDir_ + "/" + letter + Names().rbegin()->substr(1);
  }
};

TEST_F(FileLockTest, LeavesARecordForOtherPrograms) {
  const mode_t umaskBefore = umask(077);
  Taken lock(file_);
  EXPECT_EQ(077U, umask(umaskBefore));
  EXPECT_EQ(fs::perms::all, fs::status(lockDir_).permissions());
  ASSERT_EQ(1U, Names().size());
  EXPECT_EQ(fs::perms{0644}, fs::status(lockDir_ + "/" + *Names().begin()).permissions());
  // What a reader makes of it who knows the format and nothing of this code.
  const std::string record = ReadFile(lockDir_ + "/" + *Names().begin());
  const std::string text = record.substr(0, record.find('\0'));
  EXPECT_EQ(Padded(text), record);
  uint64_t djb2 = 5381;
  for (const char c : lockDir_) djb2 = (djb2 * 33 + static_cast<unsigned char>(c)) % (1ULL << 32);
  const std::string id = IdOf(getpid());
  const std::string rest = id + " 1 X " + id.substr(id.find('-') + 1) + " lc=";
  const std::string machine = "uuid=52(-[0-9a-f]{2}){15}(-[0-9a-f]+-[0-9a-f]+)? ";
  const std::regex format(machine + rest + std::to_string(djb2));
  EXPECT_TRUE(std::regex_match(text, format)) << text;
  // A child is somebody else, by any name, and draws other numbers.
  InChild([&] {
    EXPECT_EQ(EAGAIN, Taken(file_).err);
    Taken other(dir_.Path("other"));
    EXPECT_EQ(IdOf(getpid()), FileLockOwnExecution().text);
    dir_.Write("drawn", std::to_string(FileSimpleRandom()));
  });
  EXPECT_NE(ReadFile(dir_.Path("drawn")), std::to_string(FileSimpleRandom()));
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
    for (const uint32_t limit : {300U, 2500U, 60000U}) {
      const uint64_t before = nowMs;
      EXPECT_EQ(line, Try(EAGAIN, limit));
      EXPECT_EQ(limit, nowMs - before);
    }
    EXPECT_EQ(1U, Names().size());
  }
}

TEST_F(FileLockTest, AWaitCanBeGivenUp) {
  const Taken holder(file_);
  const Pipe stop;
  const auto wait = [&] {
    int err;
    EXPECT_EQ(nullptr, FileLock_LockCancellable(file_.c_str(), false, FILELOCK_INFINITE_WAIT,
                                                stop.read.Get(), &err, nullptr));
    EXPECT_EQ(1U, Names().size());
    return err;
  };
  SysFault soon("stat", 6, 0, [&] { EXPECT_EQ(1, write(stop.write.Get(), "", 1)); });
  EXPECT_EQ(ECANCELED, wait());
  EXPECT_TRUE(soon.Fired());
  const uint64_t before = nowMs;
  EXPECT_EQ(ECANCELED, wait());
  EXPECT_EQ(before, nowMs);
}

TEST_F(FileLockTest, SleepsAsLongAsAsked) {
  std::set<uint32_t> times;
  for (int i = 0; i < 100; i++) {
    const uint64_t before = nowMs;
    int error;
    times.insert(FileSleeper(10, 19, -1, &error));
    EXPECT_TRUE(error == 0 && times.contains(static_cast<uint32_t>(nowMs - before)));
  }
  EXPECT_TRUE(*times.begin() >= 10 && *times.rbegin() <= 19 && times.size() > 5);
}

TEST_F(FileLockTest, ChoosersAreWaitedForOnceAndNotTooLong) {
  PutRecord(kElsewhere + " 1-1 7 X 1", "M00007.lck");
  const auto after = [&](int expected, uint32_t limit) {
    const uint64_t before = nowMs;
    Try(expected, limit);
    return nowMs - before;
  };
  fs::create_directory(lockDir_ + "/D00007.lck");
  EXPECT_EQ(200U, after(EAGAIN, 0));
  EXPECT_EQ(500U, after(EAGAIN, 500));
  EXPECT_TRUE(fs::exists(lockDir_ + "/D00007.lck"));
  // One that is dead goes; a member that happens to have its number is somebody else's.
  EXPECT_EQ(9000U, after(EAGAIN, 9000));
  EXPECT_EQ(std::set<std::string>{"M00007.lck"}, Names());
  fs::remove_all(lockDir_);
  // Others come meanwhile, also under a name that was there.
  fs::create_directories(lockDir_ + "/D00001.lck");
  SysFault next("opendir", 3, 0,
                [&] { fs::rename(lockDir_ + "/D00001.lck", lockDir_ + "/D00002.lck"); });
  EXPECT_EQ(200U, after(0, FILELOCK_INFINITE_WAIT));
  // Those that have chosen since the listing count, and in a long listing also those it has missed.
  for (const int others : {0, 17}) {
    fs::remove(lockDir_ + "/D00002.lck");
    if (others == 0) fs::create_directory(lockDir_ + "/D00003.lck");
    for (int i = 0; i < others; i++)
      fs::create_directory(lockDir_ + "/E000" + std::to_string(10 + i) + ".lck");
    SysFault late("opendir", 3, 0, [&] {
      fs::remove(lockDir_ + "/D00003.lck");
      PutRecord(kElsewhere + " 1-1 1 X 1");
    });
    EXPECT_EQ(others == 0 ? 200U : 0U, after(EAGAIN, 0));
    fs::remove(member_);
  }
}

TEST_F(FileLockTest, AWaiterSeesWhoDiesAndWhoLeaves) {
  Process dying = Sleeper();
  PutRecord(here_ + " " + IdOf(dying.Pid()) + " 1 X 1");
  SysFault death("stat", 6, 0, [&] {
    dying.Signal(SIGKILL);
    dying.Wait();
  });
  EXPECT_EQ(
      "FILE: FileLockWaitForPossession discarding file '" + member_ + "'; invalid executionID.\n",
      Try(0, 5000));
  // Another one may draw the number of somebody who has left; his record is not that one's.
  PutRecord(kElsewhere + " 1-1 1 X 1");
  SysFault swap("stat", 5, 0, [&] { PutRecord(kElsewhere + " 1-1 3 X 1"); });
  EXPECT_EQ("", Try(0, FILELOCK_INFINITE_WAIT));
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
           {here_ + " -1 7 X 1", true},
           {kElsewhere + " 1-1 +7x X 1", true},
           {here_ + " " + dead_ + " 7 X 1", false},
           {kElsewhere + " " + dead_ + " 7 X 1", true},
           {here_ + " " + IdOf(getpid()) + " 7 X 1 lc=1", false},
       }) {
    PutRecord(record);
    const std::string log = Try(counts ? EAGAIN : 0);
    EXPECT_EQ(counts, fs::exists(member_)) << record;
    EXPECT_NE(counts, log.starts_with("FILE: FileLockScanner discarding M00001.lck from " +
                                      lockDir_ + "': "));
  }
  PutRecord(kElsewhere + " 1-1 -1 X 1");
  SysFault last("rmdir", 1, 0, [&] { EXPECT_FALSE(fs::exists(Sibling('E'))); });
  Try(EOVERFLOW);
  EXPECT_EQ(1U, Names().size());
}

TEST_F(FileLockTest, WhatCannotBeARecordGoes) {
  const std::string self = "FILE: FileLockMemberValues ";
  const std::string removing = self + "removing problematic lock file '" + member_ + "'\n";
  PutRecord("m 1-1 \x01\xC2\x9B=1");
  EXPECT_NE(std::string::npos, Try(0).find(self + member_ + " argv[2]: '\\x01\\xC2\\x9B=1'\n"));
  PutRecord("");
  fs::resize_file(member_, 513);
  EXPECT_EQ(self + "file '" + member_ + "': size 513, required size 512\n" + removing, Try(0));
  // What a link names is not read, or not shown, and neither a FIFO nor a socket stops anybody.
  const std::string secret = dir_.Write("secret", Padded("secret"));
  fs::create_directory(lockDir_);
  fs::create_symlink(secret, member_);
  ASSERT_EQ(0, mkfifo((lockDir_ + "/M00002.lck").c_str(), 0666));
  sockaddr_un address = {AF_UNIX, {}};
  snprintf(address.sun_path, sizeof address.sun_path, "%s/M00003.lck", lockDir_.c_str());
  const Fd listener(socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(0, bind(listener.Get(), reinterpret_cast<sockaddr *>(&address), sizeof address));
  const std::string log = Try(0);
  EXPECT_TRUE(log.find(removing) != std::string::npos && DirectoryIsGone());
  EXPECT_EQ(std::string::npos, log.find("'secret'"));
  fs::create_directory(lockDir_);
  fs::create_hard_link(secret, member_);
  EXPECT_EQ(removing, Try(0));
}

TEST_F(FileLockTest, WhatIsNoEntryGoes) {
  PutRecord("", "M1234x\xC2\x9B.lck");
  EXPECT_EQ("FILE: FileLockScanner discarding M1234x\\xC2\\x9B.lck from " + lockDir_ +
                "'; invalid file name.\n",
            Try(0));
  fs::create_directory_symlink(dir_.Path("nowhere"), lockDir_);
  EXPECT_NE("", Try(0));
  // What stays, whatever is done, is in nobody's way.
  PutRecord("", ".nfs0001");
  fs::create_directory(lockDir_ + "/other");
  Try(0);
  EXPECT_EQ((std::set<std::string>{".nfs0001", "other"}), Names());
  fs::remove_all(lockDir_);
  dir_.Write("file.lck", "");
  EXPECT_EQ("FILE: FileLockCreateEntryDirectory: '" + lockDir_ + "' is not a directory. Removed.\n",
            Try(0));
  // But no directory is emptied that is the lock's by a link alone.
  fs::create_directory_symlink(".", lockDir_);
  dir_.Write("precious", "");
  LogOf([&] { EXPECT_NE(0, Taken(file_).err); });
  EXPECT_EQ((std::set<std::string>{"file.lck", "precious"}), Names());
}

// As an ordinary user: for root everything is writable.
TEST_F(FileLockTest, WhereNobodyMayWriteSharedLocksAreGranted) {
  ASSERT_TRUE(mkdir(lockDir_.c_str(), 0555) == 0 && chmod(dir_.Path().c_str(), 0555) == 0);
  const ChildResult child = RunInChild([&] {
    if (geteuid() == 0 && setuid(65534) != 0) _exit(1);
    if (Taken(file_, true).err != 0 || Taken(file_).err != EACCES) _exit(2);
  });
  EXPECT_EQ(42, child.exitStatus);
  EXPECT_NE(std::string::npos,
            child.output.find("FILE: FileLockIntrinsicPortable implicit S lock succeeded on '" +
                              file_ + "'.\n"));
  chmod(dir_.Path().c_str(), 0755);
}

// Something happens right before the nth call of a name, or instead of it.
TEST_F(FileLockTest, WhatHappensMeanwhile) {
  const auto tryWith = [&](const char *call, int nth, int error, int expected, auto before) {
    {
      SysFault fault(call, nth, error, before);
      Try(expected);
      EXPECT_TRUE(fault.Fired()) << call;
    }
    const bool isGone = DirectoryIsGone();
    fs::remove_all(lockDir_);
    return isGone;
  };
  const auto none = [] {};
  const auto write = [&](const std::string &path) {
    std::ofstream(path) << Padded(kElsewhere + " 1-1 1 X 1");
  };
  // The lock directory, and the number: somebody else's, or a leftover.
  EXPECT_TRUE(tryWith("mkdir", 1, 0, 0, [&] { fs::create_directory(lockDir_); }));
  tryWith("mkdir", 2, EEXIST, EBUSY, [] { nowMs += 8001; });
  EXPECT_FALSE(tryWith("stat", 2, 0, EAGAIN, [&] { write(Sibling('M')); }));
  EXPECT_TRUE(tryWith("open", 1, 0, 0, [&] { write(Sibling('E')); }));
  // An answer that got lost, a file that another machine has removed.
  EXPECT_TRUE(tryWith("rename", 1, ENOENT, 0, [&] { fs::rename(Sibling('E'), Sibling('M')); }));
  for (const auto &[call, nth] : {std::pair{"open", 2}, {"fstat", 1}, {"read", 1}}) {
    PutRecord(kElsewhere + " 1-1 1 S 1");
    Taken reader(file_, true);
    tryWith(call, nth, ESTALE, EAGAIN, none);
    reader.token = nullptr;
  }
  // The entry directory was discarded; the whole directory was removed by hand.
  EXPECT_TRUE(tryWith("rmdir", 1, 0, ENOENT, [&] { fs::remove(Sibling('D')); }));
  EXPECT_TRUE(tryWith("stat", 3, 0, ENOENT, [&] { fs::remove_all(lockDir_); }));
  // Read-only media.
  EXPECT_TRUE(tryWith("mkdir", 1, EROFS, EROFS, none));
  SysFault fault("mkdir", 1, EROFS);
  LogOf([&] { EXPECT_EQ(0, Taken(file_, true).err); });
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
  EXPECT_TRUE(Eventually([&] { return ReadFile(stat).find(") Z ") != std::string::npos; }));
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

// A process that is killed anywhere on the way in or out holds nobody up for more than 8.4 seconds, and
// after 10 not even those that do not wait.
TEST_F(FileLockTest, SurvivesADeathAtAnySystemCall) {
  int signal = SIGKILL;
  for (int n = 1; signal != 0; n++) {
    PutRecord(here_ + " " + dead_ + " 1 X 1");
    const ChildResult child = RunInChild([&] {
      SysFault death("", n, 0, [] { raise(SIGKILL); });
      Taken lock(file_);
    });
    const bool waits = n % 2 == 0;
    for (const std::string &name : Names()) {
      if (waits || name[0] != 'D') continue;
      fs::last_write_time(lockDir_ + "/" + name,
                          fs::file_time_type::clock::now() - std::chrono::seconds(11));
    }
    const uint64_t before = nowMs;
    Try(0, waits ? FILELOCK_INFINITE_WAIT : 0);
    EXPECT_GE(waits ? 42 * 200U : 200U, nowMs - before) << n;
    EXPECT_TRUE(DirectoryIsGone()) << n;
    signal = child.signal;
    EXPECT_TRUE(signal != 0 || (n > 20 && child.exitStatus == 42)) << n;
  }
}

}  // namespace

extern "C" {
int __wrap_getifaddrs(ifaddrs **list) {
  static char name[] = "en0";
  static sockaddr_ll address = {AF_PACKET, 0, 0, 0, 0, 6, {2, 1, 2, 3, 4, 5, 0, 0}};
  static ifaddrs entry = {};
  entry.ifa_name = name;
  entry.ifa_addr = hasHardware ? reinterpret_cast<sockaddr *>(&address) : nullptr;
  *list = &entry;
  return 0;
}
void __wrap_freeifaddrs(ifaddrs *) {}
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
