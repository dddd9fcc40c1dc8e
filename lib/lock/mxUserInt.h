// mxUserInt.h -- what the files of the lock library share.
//
// Holds:  1. `count` and `owner` of a native lock are changed only by the thread that has the
//            mutex.  All others may read them at any time, so they are atomic, but relaxed: the one
//            question they answer without the mutex is "is it me?", and a thread finds its own
//            identity there only if it wrote that itself.
//         2. A lock is on the list from the end of its creation to the beginning of its
//            destruction.  List links belong to the list lock; so does the life of a lock, as seen
//            by the statistics pass.
//         3. What is created at first use is installed by compare-and-swap; who comes second
//            destroys its own and takes the first.
#pragma once

#include <pthread.h>

#include <atomic>
#include <bit>
#include <cstdarg>
#include <cstddef>
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

// A slot that owns what is installed in it.
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

// A value that one thread at a time changes and that others may read meanwhile: a plain load and
// store on every processor, without a data race.
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

// The owner of a lock that nobody owns: all bits set.  pthread_t is a pointer on one host and an
// integer on the other.
inline pthread_t MXUserNobody() {
  static_assert(sizeof(pthread_t) == sizeof(uintptr_t));
  return std::bit_cast<pthread_t>(UINTPTR_MAX);
}

constexpr size_t kMXUserCacheLine = 64;

// A mutex that its owner may acquire again.  Between release and acquisition the count is 0.
//
// It begins a cache line: where the mutex is small enough, two processors that fight for the lock
// pass one line to and fro, and never two.
struct alignas(kMXUserCacheLine) MXUserNativeLock {
  pthread_mutex_t mutex;
  RelaxedAtomic<int32_t> count;
  RelaxedAtomic<pthread_t> owner{MXUserNobody()};

  // These four return what the native call returned.
  int Init() { return pthread_mutex_init(&mutex, nullptr); }
  int Destroy() { return pthread_mutex_destroy(&mutex); }
  int Acquire() { return AcquireWith(pthread_mutex_lock); }
  int TryAcquire() { return AcquireWith(pthread_mutex_trylock); }

  bool IsOwnedByCaller() const { return owner.Get() == Platform_ThreadSelf(); }

  // The caller must be the owner.  Then unlocking a mutex of the default kind cannot fail, and by
  // not looking it becomes the caller's last jump: a tenth of the time of a free lock.
  void Release() {
    const int32_t before = count.Get();
    count.Set(before - 1);
    if (before != 1) return;
    owner.Set(MXUserNobody());
    pthread_mutex_unlock(&mutex);
  }

  // The caller keeps the mutex, but gives up all that it has acquired: how often that was.
  int32_t Disown() {
    const int32_t times = count.Get();
    count.Set(0);
    owner.Set(MXUserNobody());
    return times;
  }

  // The caller has the mutex and owns the lock from now on, acquired so many times.
  void Own(int32_t times) {
    count.Set(times);
    owner.Set(Platform_ThreadSelf());
  }

 private:
  int AcquireWith(int (*acquire)(pthread_mutex_t *)) {
    if (IsOwnedByCaller()) [[unlikely]] {
      count.Add(1);
      return 0;
    }
    const int result = acquire(&mutex);
    if (result == 0) [[likely]]
      Own(1);
    return result;
  }
};

// ---- headers and locks -----------------------------------------------------------------------

enum class MXUserType : uint32_t { recLock = 2, exclLock = 4, condVar = 6 };

// The type in the upper four bits; below it a number that all objects of this process share.
[[nodiscard]] uint32_t MXUserSignature(MXUserType type);

struct MXUserHeader {
  HeapStr name;
  RelaxedAtomic<uint32_t> signature;  // atomic, so that the 0 at the end is really written
  MX_Rank rank;
  void (*dump)(const MXUserHeader &header);   // writes the state as warnings
  void (*statsAction)(MXUserHeader *header);  // writes the statistics; null without them
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

// A bound lock has no native mutex and is on no list: `native` stays as it was born, and every
// operation goes to the hooks.
struct MXUserRecLock : MXUserLock {
  MX_MutexRec *vmmLock;  // null for an ordinary lock
  // By itself, because every operation looks at vmmLock: counting must not take that line away from
  // other processors.
  alignas(kMXUserCacheLine) std::atomic<uint32_t> refCount = 1;
};

// How a kind of locks is made.
struct MXUserLockKind {
  MXUserType type;
  const char *nameFormat;  // of a lock without a name, for its creator
  const char *createName;  // the procedure that creates it, for messages
  void (*dump)(const MXUserHeader &header);
};

// Everything but what only the kind has, and puts the lock on the list.  `creator` is the code
// location that created the lock.
void MXUserInitLock(MXUserLock *lock, const MXUserLockKind &kind, const char *name, MX_Rank rank,
                    const void *creator);

// Name, signature, rank and dump.
void MXUserInitHeader(MXUserHeader *header, const MXUserLockKind &kind, HeapStr name, MX_Rank rank);

// 1 for the first caller, and so on; never twice the same.
[[nodiscard]] uint64_t MXUserAllocSerialNumber();

// ---- the list of locks -----------------------------------------------------------------------

// The list lock for a scope.  Without it, because the native lock could not be made or because
// another thread has it and the caller does not wait, there is no list for the caller.
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

// Calls visit(header) for every lock, beginning with the head.  The caller holds the list.
void MXUserForEachLock(void (*visit)(MXUserHeader *header));

// Gives the lock its serial number and puts it on the list, if there is one.
void MXUserAddToList(MXUserHeader *header);
void MXUserRemoveFromList(MXUserHeader *header);

// ---- the end ---------------------------------------------------------------------------------

// The lines that the dumps of both kinds have in common.
void MXUserDumpHeader(const MXUserHeader &header);
void MXUserDumpNative(const MXUserNativeLock &native);

// The lock's state as warnings, then the message by Panic.
[[noreturn]] void MXUserDumpAndPanic(const MXUserHeader &header, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// A native call on the lock has failed in `procedure`.
[[noreturn]] void MXUserNativeFailure(const MXUserHeader &header, const char *procedure, int error);

// The hooks; all null when none are installed.
[[nodiscard]] const MXUserMxHooks &MXUserGetMxHooks();
