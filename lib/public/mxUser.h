// mxUser.h -- named locks: exclusive, recursive, and condition variables on either.
//
// A lock has a name, a rank and a process-wide serial number, and stands on one list of all locks,
// so that whoever looks into a stuck or failing process can tell what is what.  The rank is for the
// reader: no acquisition checks the order of ranks.
//
// Holding a lock
//   The owner may acquire a lock again, be it of the exclusive or of the recursive kind; it is free
//   for others after as many releases.  What the kinds differ in is their life: an exclusive lock
//   has one owner who destroys it, a recursive lock counts references and may stand for a lock that
//   is not of this library (MXUser_BindMXMutexRec).
//
// Failure
//   Nothing here reports an error.  Exhausted memory, a failing native call and each misuse end the
//   process by Panic; before that, misuse of a lock writes the lock's state as warnings.  Misuse is
//   to destroy a lock that is held or a condition variable that is waited for, to release a lock
//   that the caller does not hold, and to wait with a lock that is not held or is not the condition
//   variable's.
//
// Threads
//   Any thread may call any of these procedures, unless told otherwise.  Who destroys an object
//   makes sure that no other thread uses it then or later.  What a thread did before it released a
//   lock is seen by the next who acquires it.  errno is left alone by all that acquires, releases,
//   waits or wakes.
//
// Locks and condition variables are not null unless told otherwise.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

struct MXUserExclLock;
struct MXUserRecLock;
struct MXUserCondVar;

using MX_Rank = uint32_t;

// ---- exclusive locks -------------------------------------------------------------------------

// A new lock that the caller destroys.  The name is copied; null stands for "X-" and the address
// that the call returns to.
[[nodiscard]] MXUserExclLock *MXUser_CreateExclLock(const char *name, MX_Rank rank);

// The lock in `slot`; creates it when there is none.  All threads that ask for a slot at the same
// time get the same lock.
MXUserExclLock *MXUser_CreateSingletonExclLock(std::atomic<MXUserExclLock *> *slot,
                                               const char *name, MX_Rank rank);

void MXUser_AcquireExclLock(MXUserExclLock *lock);

// Never waits; false when another thread holds the lock.
[[nodiscard]] bool MXUser_TryAcquireExclLock(MXUserExclLock *lock);

void MXUser_ReleaseExclLock(MXUserExclLock *lock);

[[nodiscard]] bool MXUser_IsCurThreadHoldingExclLock(const MXUserExclLock *lock);

// The lock may be null.
void MXUser_DestroyExclLock(MXUserExclLock *lock);

// ---- recursive locks -------------------------------------------------------------------------

// A new lock with one reference, which is the caller's.  The name is copied; null stands for "R-"
// and the address that the call returns to.
[[nodiscard]] MXUserRecLock *MXUser_CreateRecLock(const char *name, MX_Rank rank);

// As MXUser_CreateSingletonExclLock.  The reference is the slot's.
MXUserRecLock *MXUser_CreateSingletonRecLock(std::atomic<MXUserRecLock *> *slot, const char *name,
                                             MX_Rank rank);

void MXUser_AcquireRecLock(MXUserRecLock *lock);

// Never waits; false when another thread holds the lock.
[[nodiscard]] bool MXUser_TryAcquireRecLock(MXUserRecLock *lock);

void MXUser_ReleaseRecLock(MXUserRecLock *lock);

[[nodiscard]] bool MXUser_IsCurThreadHoldingRecLock(const MXUserRecLock *lock);

[[nodiscard]] MX_Rank MXUser_GetRecLockRank(const MXUserRecLock *lock);

// One more reference.
void MXUser_IncRefRecLock(MXUserRecLock *lock);

// Both drop one reference, and the last one destroys the lock.  To MXUser_DestroyRecLock the lock
// may be null.
void MXUser_DecRefRecLock(MXUserRecLock *lock);
void MXUser_DestroyRecLock(MXUserRecLock *lock);

// ---- recursive locks that stand for external ones --------------------------------------------

// A lock of another system in the same process.  Only the hooks look inside.
struct MX_MutexRec;

// What this library needs of the other system.  Each hook may be null.
struct MXUserMxHooks {
  // Operations of a bound lock.  Without all five no lock can be bound.
  void (*acquire)(MX_MutexRec *lock) = nullptr;
  void (*release)(MX_MutexRec *lock) = nullptr;
  bool (*tryAcquire)(MX_MutexRec *lock) = nullptr;
  bool (*isHeld)(const MX_MutexRec *lock) = nullptr;  // by the calling thread
  const char *(*name)(const MX_MutexRec *lock) =
      nullptr;  // the other system's; null when it has none

  // After the state of a bound lock has been written as warnings: that of the external lock.
  void (*dump)(const MX_MutexRec *lock) = nullptr;
  // The bound lock is gone.
  void (*unbind)(MX_MutexRec *lock) = nullptr;

  // Locks keep failing while the process ends (see MXUser_InPanic): the other system should expect
  // no order any more.
  void (*panic)() = nullptr;
  // Whether the other system is ending the process.
  bool (*inPanic)() = nullptr;

  bool operator==(const MXUserMxHooks &) const = default;
};

// Installs the hooks, unless some are installed already: then nothing happens.
void MXUser_InstallMxHooks(const MXUserMxHooks &hooks);

// A new recursive lock, with one reference, whose operations are those of `lock`; its name is that
// lock's and " *".  Null when one of the five operations is not installed.  It has no statistics,
// is not on the list of locks and cannot have condition variables.
[[nodiscard]] MXUserRecLock *MXUser_BindMXMutexRec(MX_MutexRec *lock, MX_Rank rank);

// The external lock that a lock stands for; null for an ordinary one.
[[nodiscard]] MX_MutexRec *MXUser_GetRecLockVmm(const MXUserRecLock *lock);

// Whether the process ends because of a lock: more than five failures have been met, or the other
// system says so.
[[nodiscard]] bool MXUser_InPanic();

// ---- condition variables ---------------------------------------------------------------------
//
// A condition variable belongs to the lock that it was created for, which must outlive it.  As
// everywhere, a wait may end without a wake-up: the caller looks at its condition again.

// A new condition variable that the caller destroys.
[[nodiscard]] MXUserCondVar *MXUser_CreateCondVarExclLock(MXUserExclLock *lock);
[[nodiscard]] MXUserCondVar *MXUser_CreateCondVarRecLock(MXUserRecLock *lock);

// As a time to wait: without end.
inline constexpr uint32_t MXUSER_WAIT_INFINITE = UINT32_MAX;

// Gives the lock up, however often the caller has acquired it, waits, and holds it as before when
// it returns.  The timed forms wait at most msecWait milliseconds of the system's clock, and do not
// tell whether that has been all.
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
// acquisitions, "h" for the times that the lock was held.  Times are in nanoseconds.
//
//   MXUser: n n=NAME l=L r=RANK            a lock that is new; the rank in hexadecimal
//   MXUser: e l=L t=T c=COUNT min=MIN max=MAX mean=MEAN sd=DEVIATION
//   MXUser: ce l=L a=ATTEMPTS s=SUCCESSES sc=CONTENDED sct=TIME t=TIME
//                                          acquisitions; those that had to wait, and how long; how
//                                          long all attempts had to wait
//   MXUser: h l=L t=T min=MIN max=MAX BIN-COUNT ...
//                                          of a lock that has been contended, since then: bin B of
//                                          100 a decade begins at MIN * 10^(B / 100); empty ones
//                                          are left out, and so are those without room in the line

// Receives one line with its end, or as much of it as there was room for.  The list of locks is held
// meanwhile: the function creates and destroys no lock, acquires none under which others do so, and
// calls nothing of what is below.
using MXUserStatsFunc = void (*)(void *context, const char *line);

// Where MXUser_PerLockData writes; a null function switches it off.  A line with its NUL has
// maxLineLength bytes at most.  trackHeldTimes is not looked at: what is tracked is settled for the
// whole process.
void MXUser_SetStatsFunc(void *context, size_t maxLineLength, bool trackHeldTimes,
                         MXUserStatsFunc outputFunction);

// Writes a line for each lock that is new since the last call, and the statistics of all locks that
// have some.  Does nothing without an output function, or when another thread has the list of
// locks, be it for a pass or to create or destroy a lock: it never waits.
void MXUser_PerLockData();

// From when on a lock counts as contended, for locks that are created from now on; all 0 at first.
//   countFloor     attempts to acquire it below which there is no ratio; 0 switches the check off,
//                  all ones takes any lock for contended
//   durationFloor  nanoseconds to wait below which an acquisition does not count as contended
//   ratioFloor     the part of attempts that failed, or of acquisitions that were contended, that
//                  must be exceeded
void MXUser_SetContentionFloors(uint64_t countFloor, uint64_t durationFloor, double ratioFloor);

// The same for one lock; false when it has no statistics of acquisitions.
bool MXUser_SetContentionRatioFloorExclLock(MXUserExclLock *lock, double ratioFloor);
bool MXUser_SetContentionCountFloorExclLock(MXUserExclLock *lock, uint64_t countFloor);
bool MXUser_SetContentionDurationFloorExclLock(MXUserExclLock *lock, uint64_t durationFloor);
bool MXUser_SetContentionRatioFloorRecLock(MXUserRecLock *lock, double ratioFloor);
bool MXUser_SetContentionCountFloorRecLock(MXUserRecLock *lock, uint64_t countFloor);
bool MXUser_SetContentionDurationFloorRecLock(MXUserRecLock *lock, uint64_t durationFloor);
