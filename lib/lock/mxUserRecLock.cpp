// mxUserRecLock.cpp -- recursive locks: counted references, and locks that forward to external ones.
//
// Tests: tests/unit/lock_test.cpp

#include "lib/lock/mxUserInt.h"
#include "lib/lock/mxUserStats.h"
#include "lib/public/log.h"
#include "lib/public/str.h"

namespace {

void DumpRecLock(const MXUserHeader &header) {
  const auto &lock = static_cast<const MXUserRecLock &>(header);
  Warning("%s: Recursive lock @ %p\n", "MXUserDumpRecLock", static_cast<const void *>(&lock));
  MXUserDumpHeader(lock);
  Warning("\treference count %u\n", lock.refCount.load(std::memory_order_relaxed));
  if (lock.vmmLock == nullptr) {
    MXUserDumpNative(lock.native);
    return;
  }
  Warning("\tvmmLock %p\n", static_cast<const void *>(lock.vmmLock));
  const MXUserMxHooks &hooks = MXUserGetMxHooks();
  if (hooks.dump != nullptr) hooks.dump(lock.vmmLock);
}

constexpr MXUserLockKind kKind = {
    .type = MXUserType::recLock,
    .nameFormat = "R-%p",
    .createName = "MXUser_CreateRecLock",
    .dump = DumpRecLock,
};

struct RecLockDropper {
  void operator()(MXUserRecLock *lock) const noexcept { MXUser_DecRefRecLock(lock); }
};
using RecLockOwner = std::unique_ptr<MXUserRecLock, RecLockDropper>;

RecLockOwner NewRecLock(const char *name, MX_Rank rank, const void *creator) {
  HeapPtr<MXUserRecLock> lock = Heap_New<MXUserRecLock>();
  MXUserInitLock(lock.get(), kKind, name, rank, creator);
  return RecLockOwner(lock.release());
}

// Destroys what only an ordinary lock has.
void DestroyNative(MXUserRecLock *lock) {
  if (!lock->native.IsFree()) {
    MXUserDumpAndPanic(*lock, "%s: Destroy of an acquired recursive lock\n",
                       "MXUserCondDestroyRecLock");
  }
  const int error = lock->native.Destroy();
  if (error != 0) [[unlikely]]
    MXUserNativeFailure(*lock, "MXUserCondDestroyRecLock", error);
  MXUserRemoveFromList(lock);
}

}  // namespace

// ---- life of a lock --------------------------------------------------------------------------

MXUserRecLock *MXUser_CreateRecLock(const char *name, MX_Rank rank) {
  return NewRecLock(name, rank, __builtin_return_address(0)).release();
}

MXUserRecLock *MXUser_CreateSingletonRecLock(std::atomic<MXUserRecLock *> *slot, const char *name,
                                             MX_Rank rank) {
  MXUserRecLock *const lock = slot->load(std::memory_order_acquire);
  if (lock != nullptr) return lock;
  return OnceSlot_Install(slot, NewRecLock(name, rank, __builtin_return_address(0)));
}

MXUserRecLock *MXUser_BindMXMutexRec(MX_MutexRec *external, MX_Rank rank) {
  const MXUserMxHooks &hooks = MXUserGetMxHooks();
  if (hooks.acquire == nullptr || hooks.release == nullptr || hooks.tryAcquire == nullptr ||
      hooks.isHeld == nullptr || hooks.name == nullptr) {
    return nullptr;
  }
  const char *const name = hooks.name(external);
  HeapStr ownName(name != nullptr
                      ? Str_SafeAsprintf(nullptr, "%s *", name)
                      : Str_SafeAsprintf(nullptr, "MX_%p", static_cast<void *>(external)));
  HeapPtr<MXUserRecLock> lock = Heap_New<MXUserRecLock>();
  MXUserInitHeader(lock.get(), kKind, std::move(ownName), rank);
  lock->serialNumber = MXUserAllocSerialNumber();
  lock->vmmLock = external;
  return lock.release();
}

void MXUser_IncRefRecLock(MXUserRecLock *lock) {
  lock->refCount.fetch_add(1, std::memory_order_relaxed);
}

// The thread that drops the last reference must see what the others did to the lock before they dropped
// theirs: acquire and release.
void MXUser_DecRefRecLock(MXUserRecLock *lock) {
  if (lock->refCount.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  MX_MutexRec *const external = lock->vmmLock;
  if (external == nullptr) DestroyNative(lock);
  lock->signature.Set(0);
  HeapPtr<MXUserRecLock>(lock).reset();

  const MXUserMxHooks &hooks = MXUserGetMxHooks();
  if (external != nullptr && hooks.unbind != nullptr) hooks.unbind(external);
}

void MXUser_DestroyRecLock(MXUserRecLock *lock) {
  if (lock != nullptr) MXUser_DecRefRecLock(lock);
}

// ---- operations ------------------------------------------------------------------------------

void MXUser_AcquireRecLock(MXUserRecLock *lock) {
  if (lock->vmmLock != nullptr) [[unlikely]] {
    MXUserGetMxHooks().acquire(lock->vmmLock);
    return;
  }
  const int error = lock->native.Acquire();
  if (error != 0) [[unlikely]]
    MXUserNativeFailure(*lock, __func__, error);
}

bool MXUser_TryAcquireRecLock(MXUserRecLock *lock) {
  if (lock->vmmLock != nullptr) return MXUserGetMxHooks().tryAcquire(lock->vmmLock);
  return lock->native.TryAcquire() == 0;
}

void MXUser_ReleaseRecLock(MXUserRecLock *lock) {
  if (lock->native.IsOwnedByCaller()) [[likely]] {
    lock->native.Release();
  } else if (lock->vmmLock != nullptr) {
    MXUserGetMxHooks().release(lock->vmmLock);
  } else {
    MXUserDumpAndPanic(*lock, "%s: Release of an unacquired recursive lock\n", __func__);
  }
}

bool MXUser_IsCurThreadHoldingRecLock(const MXUserRecLock *lock) {
  if (lock->vmmLock != nullptr) return MXUserGetMxHooks().isHeld(lock->vmmLock);
  return lock->native.IsOwnedByCaller();
}

MX_Rank MXUser_GetRecLockRank(const MXUserRecLock *lock) {
  return lock->rank;
}

MX_MutexRec *MXUser_GetRecLockVmm(const MXUserRecLock *lock) {
  return lock->vmmLock;
}

bool MXUser_SetContentionRatioFloorRecLock(MXUserRecLock *lock, double ratioFloor) {
  return MXUserSetRatioFloor(lock, ratioFloor);
}

bool MXUser_SetContentionCountFloorRecLock(MXUserRecLock *lock, uint64_t countFloor) {
  return MXUserSetCountFloor(lock, countFloor);
}

bool MXUser_SetContentionDurationFloorRecLock(MXUserRecLock *lock, uint64_t durationFloor) {
  return MXUserSetDurationFloor(lock, durationFloor);
}
