// lock_test.cpp -- both kinds of locks and their condition variables: depth, owners, waiting, life,
// and each misuse with what it leaves in the log.
//
// Linked so that native calls fail where a test wants it.

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <latch>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "lib/lock/mxUserInt.h"
#include "log.h"
#include "tests/support/capture.h"

namespace {
constinit const char *failingCall = "";
}

#define FAILS_ON_DEMAND(call, parameters, arguments)                                  \
  extern "C" int __real_##call parameters;                                            \
  extern "C" int __wrap_##call parameters;                                            \
  extern "C" int __wrap_##call parameters {                                           \
    return failingCall == std::string_view(#call) ? EINVAL : __real_##call arguments; \
  }
FAILS_ON_DEMAND(pthread_mutex_init, (pthread_mutex_t * m, const pthread_mutexattr_t *a), (m, a))
FAILS_ON_DEMAND(pthread_mutex_lock, (pthread_mutex_t * m), (m))
FAILS_ON_DEMAND(pthread_cond_init, (pthread_cond_t * c, const pthread_condattr_t *a), (c, a))
FAILS_ON_DEMAND(pthread_cond_wait, (pthread_cond_t * c, pthread_mutex_t *m), (c, m))
FAILS_ON_DEMAND(pthread_cond_signal, (pthread_cond_t * c), (c))
FAILS_ON_DEMAND(pthread_cond_broadcast, (pthread_cond_t * c), (c))

namespace {

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
      result = Kind::TryAcquire(lock_);
      EXPECT_EQ(result, Kind::IsHeld(lock_));
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

constexpr size_t kThreads = 9;

template <typename Body>
void InThreads(Body body) {
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < kThreads; i++) {
    threads.emplace_back([&, i] { start.arrive_and_wait(), body(i); });
  }
  for (std::thread &thread : threads) thread.join();
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

TYPED_TEST(LockTest, TheOwnerNestsAndATimedWaitGivesUpTheWholeDepthAndComesBackToIt) {
  EXPECT_FALSE(TypeParam::IsHeld(this->lock_));
  TypeParam::Acquire(this->lock_);
  EXPECT_TRUE(TypeParam::TryAcquire(this->lock_));
  TypeParam::Acquire(this->lock_);
  bool othersHadIt = false;
  std::thread other([&] {
    TypeParam::Acquire(this->lock_);
    othersHadIt = true;
    TypeParam::Release(this->lock_);
  });
  const auto start = std::chrono::steady_clock::now();
  while (!othersHadIt) TypeParam::TimedWait(this->lock_, this->condVar_, 20);
  EXPECT_LE(std::chrono::milliseconds(15), std::chrono::steady_clock::now() - start);
  other.join();
  for (int depth = 3; depth > 0; depth--) {
    EXPECT_TRUE(TypeParam::IsHeld(this->lock_));
    EXPECT_FALSE(this->IsFree());
    TypeParam::Release(this->lock_);
  }
  EXPECT_FALSE(TypeParam::IsHeld(this->lock_));
  EXPECT_TRUE(this->IsFree());
}

TYPED_TEST(LockTest, OneThreadAtATime) {
  size_t sum = 0;  // plain: the lock makes it safe
  constexpr size_t kRounds = 2000;
  InThreads([&](size_t me) {
    for (size_t i = 0; i < kRounds; i++) {
      if (me % 2 == 0 || !TypeParam::TryAcquire(this->lock_)) TypeParam::Acquire(this->lock_);
      TypeParam::Acquire(this->lock_);
      sum++;
      TypeParam::Release(this->lock_);
      TypeParam::Release(this->lock_);
    }
  });
  EXPECT_EQ(kThreads * kRounds, sum);
}

// Eight wait, at different depths: one is let in by a signal, all others by a broadcast.
TYPED_TEST(LockTest, SignalWakesAWaiterAndBroadcastAll) {
  size_t waiting = 0;
  size_t places = 0;
  std::atomic<size_t> admitted = 0;
  const auto give = [&](size_t count, int (*wake)(MXUserCondVar *)) {
    while (waiting < 8) TypeParam::TimedWait(this->lock_, this->condVar_, 1);
    places = count;
    TypeParam::Release(this->lock_);
    EXPECT_EQ(0, wake(this->condVar_));
    while (admitted < count) std::this_thread::yield();
    TypeParam::Acquire(this->lock_);
  };
  InThreads([&](size_t me) {
    for (size_t i = 0; i <= me; i++) TypeParam::Acquire(this->lock_);
    if (me == 0) {
      give(1, MXUser_SignalCondVar);
      give(7, MXUser_BroadcastCondVar);
    } else {
      waiting++;
      while (places == 0) TypeParam::Wait(this->lock_, this->condVar_);
      places--;
      admitted++;
    }
    for (size_t i = 0; i <= me; i++) TypeParam::Release(this->lock_);
  });
  EXPECT_EQ(8U, admitted);
}

// ---- life ------------------------------------------------------------------------------------

TYPED_TEST(LockTest, AllThreadsGetTheOneLockOfASlot) {
  for (int round = 0; round < 100; round++) {
    std::atomic<typename TypeParam::Lock *> slot = nullptr;
    std::array<typename TypeParam::Lock *, kThreads> got = {};
    InThreads([&](size_t me) { got[me] = TypeParam::CreateSingleton(&slot, "single", 7); });
    EXPECT_EQ("test single ", Listed());
    for (const auto *one : got) EXPECT_EQ(slot, one);
    TypeParam::Destroy(slot);
    EXPECT_EQ("test ", Listed());
  }
}

template <typename Kind>
[[gnu::noinline]] uintptr_t CreatorInName(std::atomic<typename Kind::Lock *> *slot) {
  auto *const lock = slot ? Kind::CreateSingleton(slot, nullptr, 0) : Kind::Create(nullptr, 0);
  const uintptr_t result = std::stoul(lock->name.get() + 2, nullptr, 16);
  Kind::Destroy(lock);
  return result;
}

TYPED_TEST(LockTest, ALockWithoutANameIsNamedForItsCreator) {
  std::atomic<typename TypeParam::Lock *> slot = nullptr;
  for (auto *const where : {&slot, static_cast<decltype(&slot)>(nullptr)}) {
    EXPECT_GT(2000U, CreatorInName<TypeParam>(where) -
                         reinterpret_cast<uintptr_t>(&CreatorInName<TypeParam>));
  }
}

TEST(RecLock, LivesAsLongAsItHasReferences) {
  MXUserRecLock *const lock = MXUser_CreateRecLock("counted", 0xFEFFFFFF);
  MXUser_IncRefRecLock(lock);
  MXUser_DestroyRecLock(lock);
  EXPECT_EQ(0xFEFFFFFF, MXUser_GetRecLockRank(lock));
  EXPECT_EQ(nullptr, MXUser_GetRecLockVmm(lock));
  EXPECT_EQ("counted ", Listed());
  MXUser_DecRefRecLock(lock);
  EXPECT_EQ("", Listed());
  MXUser_DestroyRecLock(nullptr);
  MXUser_DestroyExclLock(nullptr);
  MXUser_DestroyCondVar(nullptr);
}

// New locks come behind the head, and the last one follows a head that goes.
TEST(LockList, Order) {
  MXUserExclLock *const a = MXUser_CreateExclLock("a", 0);
  MXUserRecLock *const b = MXUser_CreateRecLock("b", 0);
  MXUserExclLock *const c = MXUser_CreateExclLock("c", 0);
  EXPECT_EQ("a c b ", Listed());
  MXUser_DestroyExclLock(a);
  EXPECT_EQ("b c ", Listed());
  MXUser_DestroyExclLock(c);
  MXUser_DestroyRecLock(b);
}

// ---- misuse ----------------------------------------------------------------------------------

// The lines of a dump become one; addresses and serial numbers become "*"; of signatures the type
// stays.
std::string Masked(const std::string &text) {
  const std::regex number("(@ |data |vmmLock |\\(0x|signature 0x.|serial number )[0-9A-F]+");
  return std::regex_replace(std::regex_replace(text, number, "$1*"), std::regex("\nWarning: \t"),
                            "; ");
}

constexpr const char *kOwner = "; address of owner data *\n";

std::string ExclDump(int count) {
  return "Warning: MXUserDumpExclLock: Exclusive lock @ *; signature 0x4*; name E; "
         "rank 0xFF000000; serial number *; lock count " +
         std::to_string(count) + kOwner;
}

std::string RecDump(const std::string &rest) {
  return "Warning: MXUserDumpRecLock: Recursive lock @ *; signature 0x2*; name R" + rest;
}

std::string RecDump(int references, int count) {
  return RecDump("; rank 0xFF000000; serial number *; reference count " +
                 std::to_string(references) + "; lock count " + std::to_string(count) + kOwner);
}

// A thread waits with `lock`, and the caller holds it.
void LetAnotherWait(MXUserExclLock *lock, MXUserCondVar *condVar) {
  std::latch *const begun = new std::latch(1);  // for a thread that stays
  std::thread([=] {
    MXUser_AcquireExclLock(lock);
    begun->count_down();
    MXUser_WaitCondVarExclLock(lock, condVar);
  }).detach();
  begun->wait();
  MXUser_AcquireExclLock(lock);
}

TEST(LockMisuse, EndsTheProcessWithTheStateOfTheLock) {
  MXUserExclLock *const excl = MXUser_CreateExclLock("E", 0xFF000000);
  MXUserRecLock *const rec = MXUser_CreateRecLock("R", 0xFF000000);
  MXUserCondVar *const exclVar = MXUser_CreateCondVarExclLock(excl);
  MXUserCondVar *const recVar = MXUser_CreateCondVarRecLock(rec);
  const std::string error = std::to_string(EINVAL);
  const std::string noInit = ": native lock initialization routine failed\n";
  const auto recTwice = [&] { MXUser_AcquireRecLock(rec), MXUser_AcquireRecLock(rec); };
  const struct {
    const char *failing;
    std::function<void()> body;
    std::string dump;
    std::string message;
  } rows[] = {
      {"", [&] { MXUser_AcquireExclLock(excl), MXUser_DestroyExclLock(excl); }, ExclDump(1),
       "MXUser_DestroyExclLock: Destroy of an acquired exclusive lock\n"},
      {"", [&] { MXUser_AcquireRecLock(rec), MXUser_DestroyRecLock(rec); }, RecDump(0, 1),
       "MXUserCondDestroyRecLock: Destroy of an acquired recursive lock\n"},
      {"", [&] { MXUser_ReleaseExclLock(excl); }, ExclDump(0),
       "MXUser_ReleaseExclLock: Release of an unacquired exclusive lock\n"},
      {"", [&] { recTwice(), std::thread([&] { MXUser_ReleaseRecLock(rec); }).join(); },
       RecDump(1, 2), "MXUser_ReleaseRecLock: Release of an unacquired recursive lock\n"},
      {"pthread_mutex_lock", [&] { MXUser_AcquireExclLock(excl); }, ExclDump(0),
       "MXUser_AcquireExclLock: failure " + error + " on lock E\n"},
      {"pthread_mutex_init", [] { std::ignore = MXUser_CreateExclLock("new", 0); }, "",
       "MXUser_CreateExclLock" + noInit},
      {"pthread_mutex_init", [] { std::ignore = MXUser_CreateRecLock("new", 0); }, "",
       "MXUser_CreateRecLock" + noInit},

      {"pthread_cond_init", [&] { std::ignore = MXUser_CreateCondVarRecLock(rec); }, "",
       "MXUserCreateCondVar" + noInit},
      {"", [&] { recTwice(), MXUser_WaitCondVarRecLock(rec, exclVar); }, RecDump(1, 2),
       "MXUserWaitCondVar: invalid use of lock R with condVar (0x*; E)\n"},
      {"", [&] { MXUser_TimedWaitCondVarExclLock(excl, exclVar, 1); }, ExclDump(0),
       "MXUserWaitCondVar: invalid use of lock E with condVar (0x*; E)\n"},
      {"pthread_cond_wait", [&] { recTwice(), MXUser_WaitCondVarRecLock(rec, recVar); },
       RecDump(1, 2), "MXUserWaitInternal: failure " + error + " on condVar (0x*; R)\n"},
      {"pthread_cond_signal", [&] { MXUser_SignalCondVar(exclVar); }, ExclDump(0),
       "MXUser_SignalCondVar: failure " + error + " on condVar (0x*; E) \n"},
      {"pthread_cond_broadcast", [&] { MXUser_BroadcastCondVar(recVar); }, RecDump(1, 0),
       "MXUser_BroadcastCondVar: failure " + error + " on condVar (0x*; R) \n"},
      {"", [&] { LetAnotherWait(excl, exclVar), MXUser_DestroyCondVar(exclVar); }, ExclDump(1),
       "MXUser_DestroyCondVar: Attempted destroy on active condVar (0x*; E)\n"},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(row.dump + "Panic: " + row.message, Masked(FatalText([&row] {
                failingCall = row.failing;
                row.body();
              })));
  }
  MXUser_DestroyCondVar(exclVar);
  MXUser_DestroyCondVar(recVar);
  MXUser_DestroyExclLock(excl);
  MXUser_DestroyRecLock(rec);
}

// ---- bound locks, and the end ----------------------------------------------------------------

// The other system, which writes what it is asked.  A lock of it is only a name.
const MXUserMxHooks kHooks = {
    .acquire = [](MX_MutexRec *) { Log("acquire\n"); },
    .release = [](MX_MutexRec *) { Log("release\n"); },
    .tryAcquire = [](MX_MutexRec *) { return Log("try\n"), true; },
    .isHeld = [](const MX_MutexRec *) { return Log("held?\n"), true; },
    .name = [](const MX_MutexRec *lock) { return *reinterpret_cast<const char *const *>(lock); },
    .dump = [](const MX_MutexRec *) { Log("dump\n"); },
    .unbind = [](MX_MutexRec *) { Log("unbind\n"); },
    .panic = [] { Log("panic\n"); },
    .inPanic = [] { return Log("in panic?\n"), false; },
};

TEST(BoundLock, ForwardsToTheHooksInstalledFirst) {
  std::array<const char *, 2> names = {"R", nullptr};
  const auto bind = [&](size_t i) {
    return MXUser_BindMXMutexRec(reinterpret_cast<MX_MutexRec *>(&names[i]), 1);
  };
  const auto use = [&] {
    for (const MXUserMxHooks &hooks :
         {MXUserMxHooks{}, kHooks, MXUserMxHooks{.name = [](auto) { return "late"; }}}) {
      MXUser_InstallMxHooks(hooks);
    }
    MXUserRecLock *const lock = bind(0);
    MXUser_AcquireRecLock(lock);
    Log("%d", MXUser_TryAcquireRecLock(lock) && MXUser_IsCurThreadHoldingRecLock(lock) &&
                  static_cast<void *>(MXUser_GetRecLockVmm(lock)) == names.data());
    MXUser_ReleaseRecLock(lock);
    MXUser_DestroyRecLock(lock);
    Log("%s <%s>", bind(1)->name.get(), Listed().c_str());
  };
  std::ostringstream name;
  name << "MX_" << std::hex << std::uppercase << reinterpret_cast<uintptr_t>(&names[1]);
  const std::string used = "acquire\ntry\nheld?\n1release\nunbind\n" + name.str() + " <>";
  EXPECT_EQ(used + RecDump(" *; rank 0x1; serial number *; reference count 1; vmmLock *\ndump\n") +
                "Panic: MXUserWaitCondVar: invalid use of lock R * with condVar (0x*; E)\n",
            Masked(FatalText([&] {
              use();
              MXUserExclLock *const other = MXUser_CreateExclLock("E", 0);
              MXUser_WaitCondVarRecLock(bind(0), MXUser_CreateCondVarExclLock(other));
            })));
  EXPECT_EQ(used + "Panic: MXUserCreateCondVar: native lock initialization routine failed\n",
            FatalText([&] { use(), std::ignore = MXUser_CreateCondVarRecLock(bind(0)); }));
  const ChildResult result = RunInChild([&] {
    MXUserMxHooks incomplete = kHooks;
    incomplete.isHeld = nullptr;
    MXUser_InstallMxHooks(incomplete);
    if (bind(0) == nullptr) Log("none");
  });
  EXPECT_EQ("none", WithoutStamps(result.output));
}

// Each failure exits, and each exit runs the next handler.
TEST(LockMisuse, TheSixthFailureIsAPanicOfTheOtherSystemToo) {
  std::string expected;
  for (int i = 1; i <= 7; i++) {
    expected += i < 7 ? "in panic?\n" : "in panic\n";
    if (i >= 6) expected += "panic\n";
    expected +=
        ExclDump(0) + "Panic: MXUser_ReleaseExclLock: Release of an unacquired exclusive lock\n";
  }
  EXPECT_EQ(expected, Masked(FatalText([] {
              MXUser_InstallMxHooks(kHooks);
              const auto fail = [] {
                if (MXUser_InPanic()) Log("in panic\n");
                MXUser_ReleaseExclLock(MXUser_CreateExclLock("E", 0xFF000000));
              };
              for (int i = 0; i < 6; i++) atexit(fail);
              fail();
            })));
}

}  // namespace
