// mxUserInt.h -- shared by the sources of the lock library.
//
// Invariants: 1. `again` and `owner` of a native lock are changed only by the thread that has the mutex.
//                Others may read them at any time, so they are atomic.  Relaxed is enough: without the
//                mutex the only question is "am I the owner?", and a thread finds its own identity there
//                only if it has written it.
//             2. A lock is on the list from the end of its creation to the beginning of its destruction.
//                The list lock guards the links, and keeps locks alive while the statistics pass visits
//                them.
//             3. An object that is created at its first use is installed by compare-and-swap.  A thread
//                that loses the race destroys its own object and uses the winner's.
// Tests:      tests/unit/lock_test.cpp
#pragma once

#include <pthread.h>

#include <atomic>
#include <bit>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include "lib/public/fatal.h"
#include "lib/public/heap.h"
#include "lib/public/mxUser.h"
#include "lib/public/onceSlot.h"
#include "platform/threadSelf.h"

// ---- memory ----------------------------------------------------------------------------------

// A slot that owns the object that is installed in it.
template <typename T>
class MXUserOnceSlot {
  std::atomic<T *> value_ = nullptr;

 public:
  MXUserOnceSlot() = default;
  MXUserOnceSlot(const MXUserOnceSlot &) = delete;
  MXUserOnceSlot &operator=(const MXUserOnceSlot &) = delete;
  ~MXUserOnceSlot() { HeapPtr<T>(value_.load(std::memory_order_acquire)).reset(); }

  T *Get() const { return value_.load(std::memory_order_acquire); }
  T *Install(HeapPtr<T> fresh) { return OnceSlot_Install(&value_, std::move(fresh)); }
};

// A value that one thread at a time changes while others may read it: plain loads and stores on every
// processor, but no data race.
template <typename T>
class RelaxedAtomic {
  std::atomic<T> value_{};
  static_assert(std::atomic<T>::is_always_lock_free);

 public:
  constexpr RelaxedAtomic() = default;
  explicit RelaxedAtomic(T value) : value_(value) {}

  T Get() const { return value_.load(std::memory_order_relaxed); }
  void Set(T value) { value_.store(value, std::memory_order_relaxed); }
  void Add(T value) { Set(Get() + value); }
};

// ---- the native lock -------------------------------------------------------------------------

// The owner of a lock that is free: all bits set.  pthread_t is a pointer on one host and an integer on
// the other.
inline pthread_t MXUserNobody() {
  static_assert(sizeof(pthread_t) == sizeof(uintptr_t));
  return std::bit_cast<pthread_t>(UINTPTR_MAX);
}

constexpr size_t kMXUserCacheLine = 64;

// A mutex that its owner may acquire again.  Only further acquisitions are counted, so the first one and
// the last release write nothing but the owner.
//
// It starts a cache line.  If the mutex is small enough, processors that compete for the lock exchange one
// line, not two.
struct alignas(kMXUserCacheLine) MXUserNativeLock {
  pthread_mutex_t mutex;
  RelaxedAtomic<int32_t> again;  // acquisitions by the owner after the first one
  RelaxedAtomic<pthread_t> owner{MXUserNobody()};

  // These four return the result of the native call.
  int Init() { return pthread_mutex_init(&mutex, nullptr); }
  int Destroy() { return pthread_mutex_destroy(&mutex); }
  int Acquire() { return AcquireWith(pthread_mutex_lock); }
  int TryAcquire() { return AcquireWith(pthread_mutex_trylock); }

  bool IsFree() const { return owner.Get() == MXUserNobody(); }
  // How often the owner has acquired the lock; 0 when it is free.
  int32_t Count() const { return IsFree() ? 0 : again.Get() + 1; }
  bool IsOwnedByCaller() const { return owner.Get() == Platform_ThreadSelf(); }

  // The caller must be the owner.  Then unlocking a mutex of the default kind cannot fail, and ignoring
  // the result lets the compiler emit a tail call: a tenth of the time of a free lock.
  void Release() {
    if (again.Get() > 0) [[unlikely]] {
      again.Add(-1);
      return;
    }
    owner.Set(MXUserNobody());
    pthread_mutex_unlock(&mutex);
  }

  // The caller keeps the mutex, but owns the lock no more.  Returns how often it had acquired it.
  int32_t Disown() {
    const int32_t times = Count();
    again.Set(0);
    owner.Set(MXUserNobody());
    return times;
  }

  // The caller has the mutex, and from now on owns the lock, acquired `times` times.
  void Own(int32_t times) {
    again.Set(times - 1);
    owner.Set(Platform_ThreadSelf());
  }

 private:
  int AcquireWith(int (*acquire)(pthread_mutex_t *)) {
    if (IsOwnedByCaller()) [[unlikely]] {
      if (again.Get() == INT32_MAX - 1) return EAGAIN;  // as from a recursive mutex of the host
      again.Add(1);
      return 0;
    }
    const int result = acquire(&mutex);
    if (result == 0) [[likely]]
      owner.Set(Platform_ThreadSelf());
    return result;
  }
};

// ---- headers and locks -----------------------------------------------------------------------

enum class MXUserType : uint32_t { recLock = 2, exclLock = 4, condVar = 6 };

// The type in the upper four bits; below it a salt that all objects of this process share.
[[nodiscard]] uint32_t MXUserSignature(MXUserType type);

struct MXUserHeader {
  HeapStr name;
  RelaxedAtomic<uint32_t> signature;  // atomic, so that the final 0 is not optimised away
  MX_Rank rank;
  void (*dump)(const MXUserHeader &header);   // writes the state as warnings
  void (*statsAction)(MXUserHeader *header);  // writes the statistics; null when there are none
  MXUserHeader *next;                         // null when not on the list
  MXUserHeader *prev;
  uint64_t serialNumber;
};

struct MXUserAcquireStats;
struct MXUserHeldStats;

// The common part of both kinds of locks.
struct MXUserLock : MXUserHeader {
  MXUserNativeLock native;
  MXUserOnceSlot<MXUserHeldStats> heldStats;
  MXUserOnceSlot<MXUserAcquireStats> acquireStats;
};

struct MXUserExclLock : MXUserLock {};

// A bound lock has no native mutex and is not on the list: `native` keeps its initial values, and every
// operation goes to the hooks.
struct MXUserRecLock : MXUserLock {
  MX_MutexRec *vmmLock;  // null for an ordinary lock
  // On a line of its own: every operation reads vmmLock, and counting references would keep taking its
  // line away from other processors.
  alignas(kMXUserCacheLine) std::atomic<uint32_t> refCount = 1;
};

// How the locks of one kind are made.
struct MXUserLockKind {
  MXUserType type;
  const char *nameFormat;  // of the name of a lock that was given none; prints the creator
  const char *createName;  // the procedure that creates it, for messages
  void (*dump)(const MXUserHeader &header);
};

// Initialises all that both kinds have in common, and puts the lock on the list.  `creator` is the code
// address that created the lock.
void MXUserInitLock(MXUserLock *lock, const MXUserLockKind &kind, const char *name, MX_Rank rank,
                    const void *creator);

// Sets name, signature, rank and dump.
void MXUserInitHeader(MXUserHeader *header, const MXUserLockKind &kind, HeapStr name, MX_Rank rank);

// 1, 2, 3 and so on; never the same number twice.
[[nodiscard]] uint64_t MXUserAllocSerialNumber();

// ---- the list of locks -----------------------------------------------------------------------

// Holds the list lock for a scope.  False when it does not: because the native lock could not be created,
// or because another thread has it and the caller does not wait.  Then the list is out of bounds.
class MXUserListHolder {
  MXUserNativeLock *lock_;

 public:
  enum class Mode { wait, tryOnly };

  explicit MXUserListHolder(Mode mode);
  MXUserListHolder(const MXUserListHolder &) = delete;
  MXUserListHolder &operator=(const MXUserListHolder &) = delete;
  ~MXUserListHolder() {
    if (lock_ != nullptr) lock_->Release();
  }
  explicit operator bool() const { return lock_ != nullptr; }
};

// Calls visit(header) for every lock, beginning with the head.  The caller holds the list lock.
void MXUserForEachLock(void (*visit)(MXUserHeader *header));

// Gives the lock its serial number and puts it on the list, if the list lock exists.
void MXUserAddToList(MXUserHeader *header);
void MXUserRemoveFromList(MXUserHeader *header);

// ---- the end ---------------------------------------------------------------------------------

// The lines that the dumps of both kinds share.
void MXUserDumpHeader(const MXUserHeader &header);
void MXUserDumpNative(const MXUserNativeLock &native);

// Writes the lock's state as warnings, then ends the process with the message, by Panic.
[[noreturn]] void MXUserDumpAndPanic(const MXUserHeader &header, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// A native call on the lock has failed in `procedure`.
[[noreturn]] void MXUserNativeFailure(const MXUserHeader &header, const char *procedure, int error);

// The hooks; all null when none are installed.
[[nodiscard]] const MXUserMxHooks &MXUserGetMxHooks();
