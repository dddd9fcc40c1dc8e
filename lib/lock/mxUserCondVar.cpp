// mxUserCondVar.cpp -- condition variables on either kind of lock.
//
// The native wait unlocks the mutex once, whatever the lock's depth.  So depth and owner are reset for
// the wait, and restored after it.
//
// Tests: tests/unit/lock_test.cpp

#include <sys/time.h>

#include <cerrno>

#include "lib/lock/mxUserInt.h"

struct MXUserCondVar {
  RelaxedAtomic<uint32_t> signature;
  MXUserLock *lock;  // the only lock to wait with
  pthread_cond_t cond;
  std::atomic<uint32_t> waiters;  // destruction reads it without the lock
};

namespace {

MXUserCondVar *CreateCondVar(MXUserLock *lock, bool hasMutex) {
  HeapPtr<MXUserCondVar> condVar = Heap_New<MXUserCondVar>();
  if (!hasMutex || pthread_cond_init(&condVar->cond, nullptr) != 0) {
    Panic("%s: native lock initialization routine failed\n", "MXUserCreateCondVar");
  }
  condVar->signature.Set(MXUserSignature(MXUserType::condVar));
  condVar->lock = lock;
  return condVar.release();
}

const char *OwnerName(const MXUserCondVar &condVar) {
  return condVar.lock->name.get();
}

timespec DeadlineAfter(uint32_t msec) {
  constexpr uint64_t kNsecPerSec = 1'000'000'000;
  timeval now;
  gettimeofday(&now, nullptr);
  const uint64_t deadline = static_cast<uint64_t>(now.tv_sec) * kNsecPerSec +
                            static_cast<uint64_t>(now.tv_usec) * 1000 + uint64_t{msec} * 1'000'000;
  timespec result;
  result.tv_sec = static_cast<time_t>(deadline / kNsecPerSec);
  result.tv_nsec = static_cast<long>(deadline % kNsecPerSec);
  return result;
}

int NativeWait(MXUserCondVar *condVar, pthread_mutex_t *mutex, uint32_t msecWait) {
  if (msecWait == MXUSER_WAIT_INFINITE) return pthread_cond_wait(&condVar->cond, mutex);
  const timespec deadline = DeadlineAfter(msecWait);
  return pthread_cond_timedwait(&condVar->cond, mutex, &deadline);
}

// The count of waiters is lowered only when this thread is done with the native object: a thread that
// reads 0 may destroy it.
void MXUserWaitInternal(MXUserLock *lock, MXUserCondVar *condVar, uint32_t msecWait) {
  if (lock != condVar->lock || !lock->native.IsOwnedByCaller()) {
    MXUserDumpAndPanic(*lock, "%s: invalid use of lock %s with condVar (0x%p; %s)\n",
                       "MXUserWaitCondVar", lock->name.get(), static_cast<void *>(condVar),
                       OwnerName(*condVar));
  }
  condVar->waiters.fetch_add(1, std::memory_order_relaxed);
  const int32_t times = lock->native.Disown();
  const int error = NativeWait(condVar, &lock->native.mutex, msecWait);
  lock->native.Own(times);
  if (error != 0 && error != ETIMEDOUT) {
    MXUserDumpAndPanic(*lock, "%s: failure %d on condVar (0x%p; %s)\n", __func__, error,
                       static_cast<void *>(condVar), OwnerName(*condVar));
  }
  condVar->waiters.fetch_sub(1, std::memory_order_release);
}

int Wake(MXUserCondVar *condVar, int (*wake)(pthread_cond_t *), const char *procedure) {
  const int error = wake(&condVar->cond);
  if (error != 0) {
    MXUserDumpAndPanic(*condVar->lock, "%s: failure %d on condVar (0x%p; %s) \n", procedure, error,
                       static_cast<void *>(condVar), OwnerName(*condVar));
  }
  return error;
}

}  // namespace

// ---- life ------------------------------------------------------------------------------------

MXUserCondVar *MXUser_CreateCondVarExclLock(MXUserExclLock *lock) {
  return CreateCondVar(lock, true);
}

MXUserCondVar *MXUser_CreateCondVarRecLock(MXUserRecLock *lock) {
  return CreateCondVar(lock, lock->vmmLock == nullptr);
}

void MXUser_DestroyCondVar(MXUserCondVar *condVar) {
  if (condVar == nullptr) return;
  if (condVar->waiters.load(std::memory_order_acquire) != 0) {
    MXUserDumpAndPanic(*condVar->lock, "%s: Attempted destroy on active condVar (0x%p; %s)\n",
                       __func__, static_cast<void *>(condVar), OwnerName(*condVar));
  }
  condVar->signature.Set(0);
  pthread_cond_destroy(&condVar->cond);
  HeapPtr<MXUserCondVar>(condVar).reset();
}

// ---- waiting and waking ----------------------------------------------------------------------

void MXUser_WaitCondVarExclLock(MXUserExclLock *lock, MXUserCondVar *condVar) {
  MXUserWaitInternal(lock, condVar, MXUSER_WAIT_INFINITE);
}

void MXUser_TimedWaitCondVarExclLock(MXUserExclLock *lock, MXUserCondVar *condVar,
                                     uint32_t msecWait) {
  MXUserWaitInternal(lock, condVar, msecWait);
}

void MXUser_WaitCondVarRecLock(MXUserRecLock *lock, MXUserCondVar *condVar) {
  MXUserWaitInternal(lock, condVar, MXUSER_WAIT_INFINITE);
}

void MXUser_TimedWaitCondVarRecLock(MXUserRecLock *lock, MXUserCondVar *condVar,
                                    uint32_t msecWait) {
  MXUserWaitInternal(lock, condVar, msecWait);
}

int MXUser_SignalCondVar(MXUserCondVar *condVar) {
  return Wake(condVar, pthread_cond_signal, __func__);
}

int MXUser_BroadcastCondVar(MXUserCondVar *condVar) {
  return Wake(condVar, pthread_cond_broadcast, __func__);
}
