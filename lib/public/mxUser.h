// mxUser.h -- named locks: exclusive, recursive, and condition variables on either.
//
// A lock has a name, a rank and a process-wide serial number, and is on one list of all locks, so that a
// stuck or failing process can be understood.  The rank is for the reader: no acquisition checks the order
// of ranks.
//
// Holding a lock
//   The owner of a lock of either kind may acquire it again; it is free for others after as many releases.
//   The kinds differ in their lifetime: an exclusive lock is destroyed once, by its creator; a recursive
//   lock counts references, and may forward to a lock of another system (MXUser_BindMXMutexRec).
//
// Failure
//   Nothing here reports an error.  Exhausted memory, a failing native call and misuse end the process by
//   Panic; before that, misuse of a lock writes the lock's state as warnings.  It is misuse to destroy a
//   lock that is held or a condition variable that has waiters, to acquire a lock more than INT32_MAX
//   times, to release a lock that the caller does not hold, and to wait with a lock that the caller does
//   not hold or that is not the condition variable's.
//
// Threads
//   Any thread may call any of these procedures, unless stated otherwise.  Before an object is
//   destroyed, the caller makes sure that no other thread uses it any more.  What a thread did before it
//   released a lock is visible to the next thread that acquires it.  Acquiring, releasing, waiting and
//   waking keep errno.  After fork(2), the child holds the locks of the thread that called it; locks
//   that other threads held are never released there.
//
// Locks and condition variables are not null unless stated otherwise.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

struct MXUserExclLock;
struct MXUserRecLock;
struct MXUserCondVar;

using MX_Rank = uint32_t;

// ---- exclusive locks -------------------------------------------------------------------------

// A new lock that the caller destroys.  The name is copied; a null name becomes "X-" and the return
// address of the call.
[[nodiscard]] MXUserExclLock *MXUser_CreateExclLock(const char *name, MX_Rank rank);

// The lock in `slot`, which is created if the slot is empty.  Threads that do this at the same time all
// get the same lock.
MXUserExclLock *MXUser_CreateSingletonExclLock(std::atomic<MXUserExclLock *> *slot,
                                               const char *name, MX_Rank rank);

void MXUser_AcquireExclLock(MXUserExclLock *lock);

// Never waits; false when another thread holds the lock, or the caller already holds it INT32_MAX times.
[[nodiscard]] bool MXUser_TryAcquireExclLock(MXUserExclLock *lock);

void MXUser_ReleaseExclLock(MXUserExclLock *lock);

[[nodiscard]] bool MXUser_IsCurThreadHoldingExclLock(const MXUserExclLock *lock);

// The lock may be null.
void MXUser_DestroyExclLock(MXUserExclLock *lock);

// ---- recursive locks -------------------------------------------------------------------------

// A new lock with one reference, which is the caller's.  The name is copied; a null name becomes "R-"
// and the return address of the call.
[[nodiscard]] MXUserRecLock *MXUser_CreateRecLock(const char *name, MX_Rank rank);

// As MXUser_CreateSingletonExclLock.  The slot owns the reference.
MXUserRecLock *MXUser_CreateSingletonRecLock(std::atomic<MXUserRecLock *> *slot, const char *name,
                                             MX_Rank rank);

void MXUser_AcquireRecLock(MXUserRecLock *lock);

// Never waits; false when another thread holds the lock, or the caller already holds it INT32_MAX times.
[[nodiscard]] bool MXUser_TryAcquireRecLock(MXUserRecLock *lock);

void MXUser_ReleaseRecLock(MXUserRecLock *lock);

[[nodiscard]] bool MXUser_IsCurThreadHoldingRecLock(const MXUserRecLock *lock);

[[nodiscard]] MX_Rank MXUser_GetRecLockRank(const MXUserRecLock *lock);

// Adds a reference.
void MXUser_IncRefRecLock(MXUserRecLock *lock);

// Both drop one reference, and with the last one the lock is destroyed.  MXUser_DestroyRecLock accepts
// null.
void MXUser_DecRefRecLock(MXUserRecLock *lock);
void MXUser_DestroyRecLock(MXUserRecLock *lock);

// ---- recursive locks that forward to external ones -------------------------------------------

// A lock of another system in the same process.  Only the hooks look inside.
struct MX_MutexRec;

// What the other system offers.  Each hook may be null.
struct MXUserMxHooks {
  // Operations of a bound lock.  Without all five, no lock can be bound.
  void (*acquire)(MX_MutexRec *lock) = nullptr;
  void (*release)(MX_MutexRec *lock) = nullptr;
  bool (*tryAcquire)(MX_MutexRec *lock) = nullptr;
  bool (*isHeld)(const MX_MutexRec *lock) = nullptr;       // by the calling thread
  const char *(*name)(const MX_MutexRec *lock) = nullptr;  // returns null for a lock without a name

  // Writes the state of the external lock, after that of the bound lock has been written.
  void (*dump)(const MX_MutexRec *lock) = nullptr;
  // The bound lock has been destroyed.
  void (*unbind)(MX_MutexRec *lock) = nullptr;

  // Locks keep failing while the process ends (see MXUser_InPanic): the other system should not rely on
  // them any more.
  void (*panic)() = nullptr;
  // Whether the other system is ending the process.
  bool (*inPanic)() = nullptr;

  bool operator==(const MXUserMxHooks &) const = default;
};

// Installs the hooks; does nothing when any are installed already.
void MXUser_InstallMxHooks(const MXUserMxHooks &hooks);

// A new recursive lock, with one reference, that forwards its operations to `lock`.  Its name is the
// name of that lock and " *", or "MX_" and the address of that lock if it has no name.  Null when one of
// the five operations is not installed.  It has no statistics, is not on the list of locks and cannot
// have condition variables.
[[nodiscard]] MXUserRecLock *MXUser_BindMXMutexRec(MX_MutexRec *lock, MX_Rank rank);

// The external lock that a lock forwards to; null for an ordinary lock.
[[nodiscard]] MX_MutexRec *MXUser_GetRecLockVmm(const MXUserRecLock *lock);

// Whether the process is ending because of locks: there have been more than five failures, or the other
// system says so.
[[nodiscard]] bool MXUser_InPanic();

// ---- condition variables ---------------------------------------------------------------------
//
// A condition variable belongs to the lock that it was created for, which must outlive it.  As usual, a
// wait may end without a wake-up: the caller checks its condition again.

// A new condition variable that the caller destroys.
[[nodiscard]] MXUserCondVar *MXUser_CreateCondVarExclLock(MXUserExclLock *lock);
[[nodiscard]] MXUserCondVar *MXUser_CreateCondVarRecLock(MXUserRecLock *lock);

// As a time to wait: forever.
inline constexpr uint32_t MXUSER_WAIT_INFINITE = UINT32_MAX;

// Releases the lock completely, however often the caller has acquired it, waits, and on return holds it
// as before.  The timed forms wait at most msecWait milliseconds of the system's clock, and do not tell
// whether the time has run out.
void MXUser_WaitCondVarExclLock(MXUserExclLock *lock, MXUserCondVar *condVar);
void MXUser_TimedWaitCondVarExclLock(MXUserExclLock *lock, MXUserCondVar *condVar,
                                     uint32_t msecWait);
void MXUser_WaitCondVarRecLock(MXUserRecLock *lock, MXUserCondVar *condVar);
void MXUser_TimedWaitCondVarRecLock(MXUserRecLock *lock, MXUserCondVar *condVar, uint32_t msecWait);

// Wake one waiter, or all.  The caller need not hold the lock.  The result is the native call's,
// and always 0, since failure is fatal.
int MXUser_SignalCondVar(MXUserCondVar *condVar);
int MXUser_BroadcastCondVar(MXUserCondVar *condVar);

// The condition variable may be null.
void MXUser_DestroyCondVar(MXUserCondVar *condVar);

// ---- statistics ------------------------------------------------------------------------------
//
// The lines, where L is the serial number of the lock and T a letter for what was measured: "a" for
// acquisitions, "h" for how long the lock was held.  Times are in nanoseconds.
//
//   MXUser: n n=NAME l=L r=RANK            a new lock; the rank is hexadecimal
//   MXUser: e l=L t=T c=COUNT min=MIN max=MAX mean=MEAN sd=DEVIATION
//   MXUser: ce l=L a=ATTEMPTS s=SUCCESSES sc=CONTENDED sct=TIME t=TIME
//                                          attempts, acquisitions, those of them that had to wait and
//                                          how long; and how long all attempts had to wait
//   MXUser: h l=L t=T min=MIN max=MAX BIN-COUNT ...
//                                          of a lock that has been contended, since then.  Bin B of
//                                          100 per decade begins at MIN * 10^(B / 100).  Empty bins
//                                          are left out, and so are bins without room in the line

// Receives one line with its end, or as much of it as there was room for.  The list of locks is locked
// meanwhile: the function must not create or destroy a lock, acquire a lock under which another thread
// does so, or call any of the procedures below.
using MXUserStatsFunc = void (*)(void *context, const char *line);

// Where MXUser_PerLockData writes; a null function switches it off.  A line has at most maxLineLength
// bytes with its NUL.  trackHeldTimes is ignored: what is tracked is fixed for the whole process.
void MXUser_SetStatsFunc(void *context, size_t maxLineLength, bool trackHeldTimes,
                         MXUserStatsFunc outputFunction);

// Writes a line for each lock that is new since the last call, and the statistics of all locks that have
// some.  Does nothing without an output function, or while another thread uses the list of locks, for a
// pass or to create or destroy a lock: it never waits.
void MXUser_PerLockData();

// When a lock counts as contended, for locks that are created from now on; all 0 at first.
//   countFloor     the attempts to acquire it below which there is no ratio; 0 switches the check off, and
//                  with all ones every lock counts as contended
//   durationFloor  the nanoseconds of waiting below which an acquisition does not count as contended
//   ratioFloor     the share of attempts that failed, or of acquisitions that were contended, that must be
//                  exceeded
void MXUser_SetContentionFloors(uint64_t countFloor, uint64_t durationFloor, double ratioFloor);

// The same for one lock; false when it has no acquisition statistics.
bool MXUser_SetContentionRatioFloorExclLock(MXUserExclLock *lock, double ratioFloor);
bool MXUser_SetContentionCountFloorExclLock(MXUserExclLock *lock, uint64_t countFloor);
bool MXUser_SetContentionDurationFloorExclLock(MXUserExclLock *lock, uint64_t durationFloor);
bool MXUser_SetContentionRatioFloorRecLock(MXUserRecLock *lock, double ratioFloor);
bool MXUser_SetContentionCountFloorRecLock(MXUserRecLock *lock, uint64_t countFloor);
bool MXUser_SetContentionDurationFloorRecLock(MXUserRecLock *lock, uint64_t durationFloor);
