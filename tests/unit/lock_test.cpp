// lock_test.cpp -- both kinds of locks and their condition variables: depth, owners, waiting, life,
// and misuse with what it leaves in the log; statistics: lines byte for byte, numbers against floating
// point, the pass while locks come and go.

#include <pthread.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <latch>

#include "lib/lock/mxUserLog10.h"
#include "lib/lock/mxUserStats.h"
#include "tests/support/test.h"

namespace {

// Native calls fail where a test wants it, by the wraps at the end.
constinit const char *failingCall = "";
std::function<void()> whenFailing = [] {};

// Both kinds under the same names.
#define KIND(Kind)                                                        \
  struct Kind {                                                           \
    using Lock = MXUser##Kind;                                            \
    static constexpr auto Create = MXUser_Create##Kind;                   \
    static constexpr auto CreateSingleton = MXUser_CreateSingleton##Kind; \
    static constexpr auto Acquire = MXUser_Acquire##Kind;                 \
    static constexpr auto TryAcquire = MXUser_TryAcquire##Kind;           \
    static constexpr auto Release = MXUser_Release##Kind;                 \
    static constexpr auto IsHeld = MXUser_IsCurThreadHolding##Kind;       \
    static constexpr auto Destroy = MXUser_Destroy##Kind;                 \
    static constexpr auto CreateCondVar = MXUser_CreateCondVar##Kind;     \
    static constexpr auto Wait = MXUser_WaitCondVar##Kind;                \
    static constexpr auto TimedWait = MXUser_TimedWaitCondVar##Kind;      \
  };
KIND(ExclLock)
KIND(RecLock)

template <typename Kind>
class LockTest : public testing::Test {
 protected:
  typename Kind::Lock *const lock_ = Kind::Create("test", 0xFF000000);
  MXUserCondVar *const condVar_ = Kind::CreateCondVar(lock_);

  // Whether another thread could have the lock now.
  bool IsFree() const {
    bool result = false;
    std::thread([&] {
      result = Kind::TryAcquire(lock_) && Kind::IsHeld(lock_);
      if (result) Kind::Release(lock_);
    }).join();
    return result;
  }

  ~LockTest() override {
    MXUser_DestroyCondVar(condVar_);
    Kind::Destroy(lock_);
  }
};

using Kinds = testing::Types<ExclLock, RecLock>;
TYPED_TEST_SUITE(LockTest, Kinds);

void InThreads(size_t count, const std::function<void(size_t me)> &body) {
  std::latch start(static_cast<std::ptrdiff_t>(count));
  std::vector<std::jthread> threads;
  for (size_t i = 0; i < count; i++) {
    threads.emplace_back([&, i] { start.arrive_and_wait(), body(i); });
  }
}

// The names of all locks, in the order of their list.
std::string Listed() {
  static std::string names;
  names.clear();
  const MXUserListHolder list(MXUserListHolder::Mode::wait);
  MXUserForEachLock([](MXUserHeader *header) { names += header->name.get() + std::string(" "); });
  return names;
}

// ---- owners, depth, waiting ------------------------------------------------------------------

TYPED_TEST(LockTest, TheOwnerNestsAndATimedWaitComesBackToTheSameDepth) {
  TypeParam::Acquire(this->lock_);
  EXPECT_TRUE(TypeParam::TryAcquire(this->lock_));
  const auto start = std::chrono::steady_clock::now();
  TypeParam::TimedWait(this->lock_, this->condVar_, 20);
  EXPECT_LE(std::chrono::milliseconds(15), std::chrono::steady_clock::now() - start);
  for (int depth = 2; depth > 0; depth--) {
    EXPECT_TRUE(TypeParam::IsHeld(this->lock_));
    EXPECT_FALSE(this->IsFree());
    // A child of fork holds what the thread held, and as often.
    InChild([&, depth] {
      for (int i = 0; i < depth; i++) TypeParam::Release(this->lock_);
      EXPECT_FALSE(TypeParam::IsHeld(this->lock_));
    });
    TypeParam::Release(this->lock_);
  }
  EXPECT_FALSE(TypeParam::IsHeld(this->lock_));
  EXPECT_TRUE(this->IsFree());
}

// Threads take turns, each at a depth of its own: a thread that is woken out of turn waits on.
TYPED_TEST(LockTest, ASignalWakesAWaiterAndABroadcastAll) {
  constexpr size_t kRounds = 300;
  for (const auto &[threads, wake] :
       {std::pair{size_t{2}, &MXUser_SignalCondVar}, {size_t{8}, &MXUser_BroadcastCondVar}}) {
    size_t turn = 0, sum = 0;  // plain: the lock makes it safe
    InThreads(threads, [&, threads = threads, wake = wake](size_t me) {
      for (size_t round = 0; round < kRounds; round++) {
        if (me == 0 || !TypeParam::TryAcquire(this->lock_)) TypeParam::Acquire(this->lock_);
        for (size_t i = 0; i < me; i++) TypeParam::Acquire(this->lock_);
        sum++;
        while (turn % threads != me) TypeParam::Wait(this->lock_, this->condVar_);
        turn++;
        EXPECT_EQ(0, wake(this->condVar_));
        for (size_t i = 0; i <= me; i++) TypeParam::Release(this->lock_);
      }
    });
    EXPECT_EQ(threads * kRounds, sum);
  }
}

// ---- life ------------------------------------------------------------------------------------

TYPED_TEST(LockTest, AllThreadsGetTheOneLockOfASlot) {
  for (int round = 0; round < 100; round++) {
    std::atomic<typename TypeParam::Lock *> slot = nullptr;
    std::array<typename TypeParam::Lock *, 9> got = {};
    InThreads(got.size(),
              [&](size_t me) { got[me] = TypeParam::CreateSingleton(&slot, "one", 7); });
    EXPECT_EQ("test one ", Listed());
    for (const auto *one : got) EXPECT_EQ(slot, one);
    TypeParam::Destroy(slot);
    EXPECT_EQ("test ", Listed());
  }
}

// Both are created by one line, and named for it.
TYPED_TEST(LockTest, ALockWithoutANameIsNamedForItsCreator) {
  std::array<typename TypeParam::Lock *, 2> locks = {};
  InThreads(2, [&](size_t me) { locks[me] = TypeParam::Create(nullptr, 0); });
  EXPECT_STREQ(locks[0]->name.get(), locks[1]->name.get());
  EXPECT_TRUE(std::regex_match(locks[0]->name.get(), std::regex("[XR]-[0-9A-F]{6,}")));
  for (auto &lock : locks) TypeParam::Destroy(lock);
}

// New locks come behind the head, and the last one follows a head that goes.
TEST(LockList, HasALockUntilItsLastReferenceGoes) {
  MXUserRecLock *const a = MXUser_CreateRecLock("a", 0xFEFFFFFF);
  MXUserExclLock *const b = MXUser_CreateExclLock("b", 0);
  MXUserExclLock *const c = MXUser_CreateExclLock("c", 0);
  MXUser_IncRefRecLock(a);
  MXUser_DestroyRecLock(a);
  EXPECT_EQ(0xFEFFFFFF, MXUser_GetRecLockRank(a));
  EXPECT_EQ("a c b ", Listed());
  MXUser_DecRefRecLock(a);
  EXPECT_EQ("b c ", Listed());
  MXUser_DestroyExclLock(c);
  MXUser_DestroyExclLock(b);
  EXPECT_EQ("", Listed());
}

// ---- misuse ----------------------------------------------------------------------------------

// A dump of exactly this form becomes one line of what may differ in it.
std::string Masked(const std::string &text) {
  const std::regex dump(
      "Warning: (MXUserDump\\w+): (\\w+) lock @ \\w+; signature 0x(\\w)\\w{7}; name "
      "(\\w)(?:\\w{1012}\\.{3})?; rank "
      "0xFF000000; serial number \\d+(; reference count \\d)?; lock count (\\d+); address of owner "
      "data \\w+\n");
  const std::string joined = std::regex_replace(text, std::regex("\nWarning: \t"), "; ");
  return std::regex_replace(std::regex_replace(joined, dump, "$1 $2 $4 $3$5; $6\n"),
                            std::regex("\\(0x\\w+"), "(*");
}

std::string Excl(int count, const std::string &message) {
  return "MXUserDumpExclLock Exclusive E 4; " + std::to_string(count) + "\nPanic: " + message;
}

std::string Rec(int references, int count, const std::string &message) {
  return "MXUserDumpRecLock Recursive R 2; reference count " + std::to_string(references) + "; " +
         std::to_string(count) + "\nPanic: " + message;
}

TEST(LockMisuse, EndsTheProcessWithTheStateOfTheLock) {
  MXUserExclLock *const excl = MXUser_CreateExclLock("E", 0xFF000000);
  MXUserRecLock *const rec = MXUser_CreateRecLock("R", 0xFF000000);
  MXUserCondVar *const exclVar = MXUser_CreateCondVarExclLock(excl);
  MXUserCondVar *const recVar = MXUser_CreateCondVarRecLock(rec);
  const std::string error = std::to_string(EINVAL), name(1017, 'E');
  const auto recTwice = [&] { MXUser_AcquireRecLock(rec), MXUser_AcquireRecLock(rec); };
  const struct {
    const char *failing;
    std::function<void()> body;
    std::string text;
  } rows[] = {
      {"", [&] { MXUser_AcquireExclLock(excl), MXUser_DestroyExclLock(excl); },
       Excl(1, "MXUser_DestroyExclLock: Destroy of an acquired exclusive lock\n")},
      {"", [&] { MXUser_AcquireRecLock(rec), MXUser_DestroyRecLock(rec); },
       Rec(0, 1, "MXUserCondDestroyRecLock: Destroy of an acquired recursive lock\n")},
      {"", [&] { recTwice(), std::thread([&] { MXUser_ReleaseRecLock(rec); }).join(); },
       Rec(1, 2, "MXUser_ReleaseRecLock: Release of an unacquired recursive lock\n")},
      {"", [&] { MXUser_ReleaseExclLock(MXUser_CreateExclLock(name.c_str(), 0xFF000000)); },
       Excl(0, "MXUser_ReleaseExclLock: Release of an unacquired exclusive lock\n")},
      {"", [&] { excl->native.Own(INT32_MAX), MXUser_AcquireExclLock(excl); },
       Excl(INT32_MAX,
            "MXUser_AcquireExclLock: failure " + std::to_string(EAGAIN) + " on lock E\n")},
      {"pthread_mutex_init", [] { (void)MXUser_CreateExclLock("new", 0); },
       "Panic: MXUser_CreateExclLock: native lock initialization routine failed\n"},
      {"", [] { MXUserSetStatsMode(3), (void)MXUser_CreateRecLock("new", 0); },
       "Panic: MXUser_CreateRecLock: unknown stats mode: 3!\n"},
      {"", [&] { recTwice(), MXUser_WaitCondVarRecLock(rec, exclVar); },
       Rec(1, 2, "MXUserWaitCondVar: invalid use of lock R with condVar (*; E)\n")},
      {"", [&] { MXUser_WaitCondVarExclLock(excl, exclVar); },
       Excl(0, "MXUserWaitCondVar: invalid use of lock E with condVar (*; E)\n")},
      {"pthread_cond_wait", [&] { recTwice(), MXUser_WaitCondVarRecLock(rec, recVar); },
       Rec(1, 2, "MXUserWaitInternal: failure " + error + " on condVar (*; R)\n")},
      {"pthread_cond_signal", [&] { MXUser_SignalCondVar(exclVar); },
       Excl(0, "MXUser_SignalCondVar: failure " + error + " on condVar (*; E) \n")},
      {"pthread_cond_wait",
       [&] {
         whenFailing = [&] { MXUser_DestroyCondVar(exclVar); };
         MXUser_AcquireExclLock(excl), MXUser_WaitCondVarExclLock(excl, exclVar);
       },
       Excl(0, "MXUser_DestroyCondVar: Attempted destroy on active condVar (*; E)\n")},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(row.text, Masked(FatalText([&row] { failingCall = row.failing, row.body(); })));
  }
  MXUser_DestroyCondVar(exclVar);
  MXUser_DestroyCondVar(recVar);
  MXUser_DestroyExclLock(excl);
  MXUser_DestroyRecLock(rec);
}

// Each failure exits, and each exit runs the next handler.
TEST(LockMisuse, TheSixthFailureIsAPanicOfTheOtherSystemToo) {
  std::string expected;
  for (int i = 1; i <= 7; i++) {
    expected += i < 7 ? "calm\n" : "in panic\n";
    if (i >= 6) expected += "panic\n";
    expected += Excl(0, "MXUser_ReleaseExclLock: Release of an unacquired exclusive lock\n");
  }
  EXPECT_EQ(expected, Masked(FatalText([] {
              MXUser_InstallMxHooks({.panic = [] { Log("panic\n"); }});
              const auto fail = [] {
                Log(MXUser_InPanic() ? "in panic\n" : "calm\n");
                MXUser_ReleaseExclLock(MXUser_CreateExclLock("E", 0xFF000000));
              };
              for (int i = 0; i < 6; i++) atexit(fail);
              fail();
            })));
}

// ---- statistics ------------------------------------------------------------------------------

void Append(void *context, const char *line) {
  *static_cast<std::string *>(context) += line;
}

// What a pass writes, "L" standing for the serial number.
std::string Pass(size_t lineLength = 1024) {
  std::string text;
  MXUser_SetStatsFunc(&text, lineLength, false, Append);
  MXUser_PerLockData();
  MXUser_SetStatsFunc(nullptr, 0, false, nullptr);
  return std::regex_replace(text, std::regex(" l=\\d+ "), " l=L ");
}

TEST(LockStats, LinesAreAsDocumented) {
  MXUserExclLock *const plain = MXUser_CreateExclLock("plain", 1);
  EXPECT_FALSE(MXUser_SetContentionCountFloorExclLock(plain, 1));
  {
    // The list may be the caller's already; it is not waited for.
    const MXUserListHolder list(MXUserListHolder::Mode::wait);
    std::string text;
    MXUser_SetStatsFunc(&text, 100, false, Append);
    std::thread(MXUser_PerLockData).join();
    EXPECT_EQ("", text);
    EXPECT_EQ("MXUser: n n=plain l=L r=0x1\n", Pass());
  }
  MXUser_DestroyExclLock(plain);
  MXUser_SetContentionFloors(4, 100, 0.5);
  MXUserSetStatsMode(2);
  MXUserExclLock *const lock = MXUser_CreateExclLock("stat", 0xFF00);
  EXPECT_EQ(
      "MXUser: n n=stat l=L r=0xff00\n"
      "MXUser: e l=L t=h c=0 min=18446744073709551615 max=0 mean=0 sd=0\n",
      Pass());
  MXUserAcquireStats *const acquire = lock->acquireStats.Get();
  MXUserAcquisitionSample(acquire, false, true, 2000);
  EXPECT_NE(std::string::npos, Pass().find("MXUser: ce l=L a=1 s=0 sc=0 sct=0 t=2000\n"));
  MXUserAcquisitionSample(acquire, true, true, 99);  // too short to count
  MXUserAcquisitionSample(acquire, true, true, 100);
  MXUserAcquisitionSample(acquire, true, false, 102);
  for (const uint64_t time : {1000U, 2000U, 4000U}) {
    MXUserBasicStatsSample(&lock->heldStats.Get()->basic, time);
  }
  const std::string lines =
      "MXUser: e l=L t=h c=3 min=1000 max=4000 mean=2333 sd=1528\n"
      "MXUser: e l=L t=a c=3 min=99 max=102 mean=100 sd=2\n"
      "MXUser: ce l=L a=4 s=3 sc=1 sct=100 t=2100\n";
  EXPECT_EQ(lines, Pass());  // one in three contended, one in four failed

  // All ones take any lock for contended, silently.
  ASSERT_TRUE(MXUser_SetContentionCountFloorExclLock(lock, UINT64_MAX));
  EXPECT_EQ("", LogOf([&] { EXPECT_EQ(lines, Pass()); }));
  for (const uint64_t time : {UINT64_MAX / 2, 0UL, 999UL, 1000UL, 9999UL, 10000UL, 100000UL}) {
    MXUserBasicStatsSample(&acquire->basic, time);
  }
  MXUserBasicStatsSample(&lock->heldStats.Get()->basic, 5000);
  // A third of the acquisitions was contended, and that must exceed the floor.
  ASSERT_TRUE(MXUser_SetContentionCountFloorExclLock(lock, 4));
  ASSERT_TRUE(MXUser_SetContentionRatioFloorExclLock(lock, 0.33));
  std::string hot;
  EXPECT_EQ("HOT LOCK (stat); contention ratio 0.333333\n", LogOf([&] { hot = Pass(); }));
  ASSERT_TRUE(MXUser_SetContentionCountFloorExclLock(lock, 5));
  EXPECT_EQ("", LogOf([&] { EXPECT_EQ(hot, Pass()); }));
  const std::string histo =
      "MXUser: h l=L t=a min=1000 max=10000000000 0-3 99-1 100-1 200-1 699-1\n";
  EXPECT_TRUE(hot.ends_with(histo)) << hot;
  EXPECT_NE(std::string::npos, hot.find("MXUser: h l=L t=h min=1000 max=10000000000 69-1\n"));
  // A bin is written if two bytes stay free behind it.
  const size_t room = histo.size() - 1 + std::to_string(lock->serialNumber).size() + 3;
  EXPECT_TRUE(Pass(room).ends_with(" 699-1\n"));
  EXPECT_TRUE(Pass(room - 1).ends_with(" 200-1\n"));
  EXPECT_EQ("", Pass(0));
  MXUser_DestroyExclLock(lock);
  MXUserSetStatsMode(0);
}

TEST(LockStats, NumbersAreCloseToThoseOfTheLibrary) {
  for (uint64_t x = 1; x < UINT64_MAX / 2; x += x / 997 + 1) {
    EXPECT_NEAR(65536 * std::log2(static_cast<double>(x)), MXUserLog10::Log2(x), 1.7) << x;
  }
  for (double spread = 0.6; spread < 2e18; spread *= 1.37) {
    const double deviation = spread * std::sqrt(2.0);  // of -spread and spread
    EXPECT_NEAR(deviation, static_cast<double>(MXUserStandardDeviation(2, 0, 2 * spread * spread)),
                0.5 + deviation * 1e-15);
  }
  EXPECT_EQ(UINT64_MAX, MXUserStandardDeviation(3, 0, 0x1p132));
}

TEST(LockStats, ThePassMeetsLocksThatComeAndGo) {
  MXUserSetStatsMode(2);
  std::string text;
  MXUser_SetStatsFunc(&text, 256, true, Append);
  InThreads(3, [](size_t) {
    for (int round = 0; round < 300; round++) {
      MXUserRecLock *const lock = MXUser_CreateRecLock("brief", 0);
      MXUserAcquisitionSample(lock->acquireStats.Get(), true, true, 5000);
      MXUser_PerLockData();
      MXUserBasicStatsSample(&lock->heldStats.Get()->basic, 5000);
      MXUser_DestroyRecLock(lock);
    }
  });
  MXUser_SetStatsFunc(nullptr, 0, false, nullptr);
  MXUserSetStatsMode(0);
  EXPECT_NE(std::string::npos, text.find("MXUser: ce "));
}

// ---- bound locks -----------------------------------------------------------------------------

// The other system, which records what it was asked.
std::string asked;
const MXUserMxHooks kHooks = {
    .acquire = [](MX_MutexRec *) { asked += "acquire "; },
    .release = [](MX_MutexRec *) { asked += "release "; },
    .tryAcquire = [](MX_MutexRec *) { return asked += "try ", true; },
    .isHeld = [](const MX_MutexRec *) { return asked += "held? ", true; },
    .name = [](auto lock) { return asked += "name ", lock != nullptr ? "theirs" : nullptr; },
    .dump = [](const MX_MutexRec *) { Log("theirs\n"); },
    .unbind = [](MX_MutexRec *) { asked += "unbind "; },
    .inPanic = [] { return asked += "panic? ", true; },
};

TEST(BoundLock, NeedsFiveHooksAndForwardsToThoseInstalledFirst) {
  std::vector<MXUserMxHooks> rows(6, kHooks);
  rows[0].acquire = nullptr;
  rows[1].release = nullptr;
  rows[2].tryAcquire = nullptr;
  rows[3].isHeld = nullptr;
  rows[4].name = nullptr;
  rows[5] = {};
  for (const MXUserMxHooks &row : rows) {
    InChild([&] {
      MXUser_InstallMxHooks({}), MXUser_InstallMxHooks(row);
      EXPECT_EQ(nullptr, MXUser_BindMXMutexRec(nullptr, 1));
      EXPECT_EQ(row.inPanic != nullptr, MXUser_InPanic());
    });
  }
  char theirs;
  auto *const external = reinterpret_cast<MX_MutexRec *>(&theirs);
  MXUser_InstallMxHooks(kHooks);
  MXUser_InstallMxHooks({.name = [](auto) { return "late"; }});
  MXUserRecLock *const nameless = MXUser_BindMXMutexRec(nullptr, 1);
  EXPECT_STREQ("MX_0", nameless->name.get());
  MXUser_DestroyRecLock(nameless);
  MXUserRecLock *const lock = MXUser_BindMXMutexRec(external, 1);
  EXPECT_STREQ("theirs *", lock->name.get());
  EXPECT_EQ(external, MXUser_GetRecLockVmm(lock));
  EXPECT_EQ("", Listed());
  MXUser_AcquireRecLock(lock);
  EXPECT_TRUE(MXUser_TryAcquireRecLock(lock) && MXUser_IsCurThreadHoldingRecLock(lock));
  MXUser_ReleaseRecLock(lock);
  const std::string dump = FatalText([&] {
    MXUser_WaitCondVarRecLock(lock, MXUser_CreateCondVarRecLock(MXUser_CreateRecLock("own", 1)));
  });
  EXPECT_NE(std::string::npos, dump.find("count 1\nWarning: \tvmmLock ")) << dump;
  EXPECT_NE(std::string::npos, dump.find("\ntheirs\nPanic: ")) << dump;
  MXUser_DestroyRecLock(lock);
  EXPECT_EQ("name name acquire try held? release unbind ", asked);
}

}  // namespace

#define FAILS_ON_DEMAND(call, parameters, arguments)                            \
  extern "C" int __real_##call parameters;                                      \
  extern "C" int __wrap_##call parameters {                                     \
    if (failingCall != std::string_view(#call)) return __real_##call arguments; \
    whenFailing();                                                              \
    return EINVAL;                                                              \
  }
FAILS_ON_DEMAND(pthread_mutex_init, (pthread_mutex_t * m, const pthread_mutexattr_t *a), (m, a))
FAILS_ON_DEMAND(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t *m), (c, m))
FAILS_ON_DEMAND(pthread_cond_signal, (pthread_cond_t * c), (c))
