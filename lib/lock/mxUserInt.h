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
#include <memory>
#include <new>
#include <utility>

#include "heap.h"
#include "mxUser.h"

// ---- memory ----------------------------------------------------------------------------------

struct MXUserDeleter {
  template <typename T>
  void operator()(T *p) const noexcept {
    std::destroy_at(p);
    HeapFreer()(p);
  }
};

template <typename T>
using MXUserPtr = std::unique_ptr<T, MXUserDeleter>;

// A new object, zeroed but for what its type sets; never null.
template <typename T>
[[nodiscard]] MXUserPtr<T> MXUserNew() {
  return MXUserPtr<T>(new (Heap_SafeMalloc(sizeof(T))) T{});
}

// Puts `fresh` into the empty slot, or gives it up when another thread was first; what is in the
// slot then.
template <typename T, typename Deleter>
T *MXUserInstallOnce(std::atomic<T *> *slot, std::unique_ptr<T, Deleter> fresh) {
  T *winner = nullptr;
  if (!slot->compare_exchange_strong(winner, fresh.get(), std::memory_order_acq_rel,
                                     std::memory_order_acquire)) {
    return winner;
  }
  return fresh.release();
}

// A slot that owns what is installed in it.
template <typename T>
class MXUserOnceSlot {
  std::atomic<T *> value_ = nullptr;

 public:
  MXUserOnceSlot() = default;
  MXUserOnceSlot(const MXUserOnceSlot &) = delete;
  MXUserOnceSlot &operator=(const MXUserOnceSlot &) = delete;
  ~MXUserOnceSlot() { MXUserPtr<T>(value_.load(std::memory_order_acquire)).reset(); }

  T *Get() const { return value_.load(std::memory_order_acquire); }
  T *Install(MXUserPtr<T> fresh) { return MXUserInstallOnce(&value_, std::move(fresh)); }
};

// A value that one thread at a time changes and that others may read meanwhile: a plain load and
// store on every processor, without a data race.
template <typename T>
class MXUserShared {
  std::atomic<T> value_{};
  static_assert(std::atomic<T>::is_always_lock_free);

 public:
  constexpr MXUserShared() = default;
  explicit MXUserShared(T value) : value_(value) {}

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

// A mutex that its owner may acquire again.  Its procedures return what the native call returned.
struct MXUserNativeLock {
  pthread_mutex_t mutex;
  MXUserShared<int32_t> count;
  MXUserShared<pthread_t> owner{MXUserNobody()};

  int Init() { return pthread_mutex_init(&mutex, nullptr); }
  int Destroy() { return pthread_mutex_destroy(&mutex); }

  bool IsOwnedByCaller() const { return pthread_equal(owner.Get(), pthread_self()) != 0; }

  int Acquire() { return AcquireWith(pthread_mutex_lock); }
  int TryAcquire() { return AcquireWith(pthread_mutex_trylock); }

  // The caller must be the owner.
  int Release() {
    const int32_t before = count.Get();
    count.Set(before - 1);
    if (before != 1) return 0;
    owner.Set(MXUserNobody());
    return pthread_mutex_unlock(&mutex);
  }

  // The mutex is the caller's, but with nobody's name on it; and back.
  int32_t Disown() {
    const int32_t before = count.Get();
    count.Set(0);
    owner.Set(MXUserNobody());
    return before;
  }
  void Own(int32_t times) {
    const int32_t before = count.Get();
    count.Set(before + times);
    if (before == 0) owner.Set(pthread_self());
  }

 private:
  int AcquireWith(int (*acquire)(pthread_mutex_t *)) {
    if (count.Get() > 0 && IsOwnedByCaller()) {
      count.Add(1);
      return 0;
    }
    const int result = acquire(&mutex);
    if (result == 0) Own(1);
    return result;
  }
};

// ---- headers ---------------------------------------------------------------------------------

enum class MXUserType : uint32_t { recLock = 2, exclLock = 4, condVar = 6 };

// The type in the upper four bits; below it a number that all objects of this process share.
[[nodiscard]] uint32_t MXUserSignature(MXUserType type);

struct MXUserHeader {
  HeapStr name;
  MXUserShared<uint32_t> signature;  // atomic, so that the 0 at the end is really written
  MX_Rank rank;
  void (*dump)(const MXUserHeader &header);   // writes the state as warnings
  void (*statsAction)(MXUserHeader *header);  // null without statistics
  MXUserHeader *next;                         // null when not on the list
  MXUserHeader *prev;
  uint64_t serialNumber;
};

// The common part of both kinds of locks.
struct MXUserLock : MXUserHeader {
  MXUserNativeLock native;
};

// How a kind of locks is made.
struct MXUserLockKind {
  MXUserType type;
  const char *namePrefix;  // of a lock without a name
  const char *createName;  // the procedure that creates it, for messages
  void (*dump)(const MXUserHeader &header);
};

// Everything but what only the kind has.  `creator` is the code location that created the lock.
void MXUserInitLock(MXUserLock *lock, const MXUserLockKind &kind, const char *name, MX_Rank rank,
                    const void *creator);
void MXUserInitHeader(MXUserHeader *header, const MXUserLockKind &kind, HeapStr name, MX_Rank rank);

[[nodiscard]] uint64_t MXUserAllocSerialNumber();

// ---- the list of locks -----------------------------------------------------------------------

// Null when the native lock could not be made.
[[nodiscard]] MXUserNativeLock *MXUserGetListLock();

// Without the list lock there is no list: nothing happens.
void MXUserAddToList(MXUserHeader *header);
void MXUserRemoveFromList(MXUserHeader *header);

// ---- the end ---------------------------------------------------------------------------------

// The lines that the dumps of both kinds have in common.
void MXUserDumpHeader(const MXUserHeader &header);
void MXUserDumpNative(const MXUserNativeLock &native);

// The lock's state as warnings, then the message by Panic.
[[noreturn]] void MXUserDumpAndPanic(const MXUserHeader &header, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

// A native call on the lock has failed.
[[noreturn]] void MXUserNativeFailure(const MXUserHeader &header, const char *procedure, int error);

// The hooks; all null when none are installed.
[[nodiscard]] const MXUserMxHooks &MXUserGetMxHooks();
