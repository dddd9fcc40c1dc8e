// mxUserExclLock.cpp -- exclusive locks, which their creator destroys.
//
// Tests: tests/unit/lock_test.cpp

#include "lib/lock/mxUserInt.h"
#include "lib/lock/mxUserStats.h"
#include "lib/public/log.h"

namespace {

void DumpExclLock(const MXUserHeader &header) {
  Warning("%s: Exclusive lock @ %p\n", "MXUserDumpExclLock", static_cast<const void *>(&header));
  MXUserDumpHeader(header);
  MXUserDumpNative(static_cast<const MXUserLock &>(header).native);
}

constexpr MXUserLockKind kKind = {
    .type = MXUserType::exclLock,
    .nameFormat = "X-%p",
    .createName = "MXUser_CreateExclLock",
    .dump = DumpExclLock,
};

struct ExclLockDestroyer {
  void operator()(MXUserExclLock *lock) const noexcept { MXUser_DestroyExclLock(lock); }
};
using ExclLockOwner = std::unique_ptr<MXUserExclLock, ExclLockDestroyer>;

ExclLockOwner NewExclLock(const char *name, MX_Rank rank, const void *creator) {
  HeapPtr<MXUserExclLock> lock = Heap_New<MXUserExclLock>();
  MXUserInitLock(lock.get(), kKind, name, rank, creator);
  return ExclLockOwner(lock.release());
}

}  // namespace

MXUserExclLock *MXUser_CreateExclLock(const char *name, MX_Rank rank) {
  return NewExclLock(name, rank, __builtin_return_address(0)).release();
}

MXUserExclLock *MXUser_CreateSingletonExclLock(std::atomic<MXUserExclLock *> *slot,
                                               const char *name, MX_Rank rank) {
  MXUserExclLock *const lock = slot->load(std::memory_order_acquire);
  if (lock != nullptr) return lock;
  return OnceSlot_Install(slot, NewExclLock(name, rank, __builtin_return_address(0)));
}

void MXUser_AcquireExclLock(MXUserExclLock *lock) {
  const int error = lock->native.Acquire();
  if (error != 0) [[unlikely]]
    MXUserNativeFailure(*lock, __func__, error);
}

bool MXUser_TryAcquireExclLock(MXUserExclLock *lock) {
  return lock->native.TryAcquire() == 0;
}

void MXUser_ReleaseExclLock(MXUserExclLock *lock) {
  if (!lock->native.IsOwnedByCaller()) [[unlikely]] {
    MXUserDumpAndPanic(*lock, "%s: Release of an unacquired exclusive lock\n", __func__);
  }
  lock->native.Release();
}

bool MXUser_IsCurThreadHoldingExclLock(const MXUserExclLock *lock) {
  return lock->native.IsOwnedByCaller();
}

void MXUser_DestroyExclLock(MXUserExclLock *lock) {
  if (lock == nullptr) return;
  if (!lock->native.IsFree()) {
    MXUserDumpAndPanic(*lock, "%s: Destroy of an acquired exclusive lock\n", __func__);
  }
  const int error = lock->native.Destroy();
  if (error != 0) [[unlikely]]
    MXUserNativeFailure(*lock, __func__, error);
  MXUserRemoveFromList(lock);
  lock->signature.Set(0);
  HeapPtr<MXUserExclLock>(lock).reset();
}

bool MXUser_SetContentionRatioFloorExclLock(MXUserExclLock *lock, double ratioFloor) {
  return MXUserSetRatioFloor(lock, ratioFloor);
}

bool MXUser_SetContentionCountFloorExclLock(MXUserExclLock *lock, uint64_t countFloor) {
  return MXUserSetCountFloor(lock, countFloor);
}

bool MXUser_SetContentionDurationFloorExclLock(MXUserExclLock *lock, uint64_t durationFloor) {
  return MXUserSetDurationFloor(lock, durationFloor);
}
