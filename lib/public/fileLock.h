// fileLock.h -- an advisory lock on a file, between threads, processes and machines.
//
// It needs nothing of the file system but directories and renames, so it works wherever a file can
// be shared.  It is a directory beside the file, named after it, in which each holder and waiter
// has an entry; docs/lock-format.md describes it for other programs.  The file itself is not
// touched and need not exist.
//
//   A lock is exclusive or shared.  Locks are granted in the order in which they were asked for, but
//     shared ones go together.
//   The lock belongs to its token, not to a thread or a process: a thread that already holds one on
//     the file waits like any other, and another thread may release it.
//   A child of fork(2) holds nothing: its parent's locks last as long as the parent.  It can release
//     a token that it has inherited, but then the lock is free for others, too.  After exec(3) a lock
//     stays until the process ends.
//   A lock whose process has died, reaped or not, is broken by the next process of the same machine
//     that wants it; elsewhere nobody can know, and it stays until somebody removes it.
//   A process that dies while it queues up holds others up for 8.2 seconds, or until their limit, and
//     from 10 seconds later on for one step of 200 ms.
//
// Machines that share a directory must have different names or, on a Mac, network cards.  On Linux a
// namespace of processes or times, such as a container, is a machine of its own.
//
// Paths are UTF-8.  A bare file name counts from the current directory, which must then stay the
// same until the lock is released.  Exhausted memory is fatal.  Any thread, at any time; but the
// directory is for everybody, and while it is made the umask of the whole process is 0: files that
// other threads create just then, without a mode of their own, and children, may get more than meant.
#pragma once

#include <cstdint>

struct FileLockToken;
struct MsgList;

// As msecMaxWait: try once, and wait without end.
inline constexpr uint32_t FILELOCK_TRYLOCK_WAIT = 0;
inline constexpr uint32_t FILELOCK_INFINITE_WAIT = UINT32_MAX;

// Locks the file `path` (not null), shared with other readers if readOnly, within msecMaxWait
// milliseconds, to which the time of the calls to the file system comes.  Without a wait, processes that
// are about to queue up are still given 200 ms.  The holder is looked at in steps, at first of up to
// 100 ms, later of a tenth of the time waited and at most 2 s.
//
// Returns a token to be released with FileLock_Unlock, *err being 0.  Otherwise null, with the
// cause in *err and errno, and a message for the user appended to *msgList (msgList may be null).
// EAGAIN: the time was up.  EBUSY: no way in for 8 seconds.  EINVAL: no absolute path for `path`.
// ENOENT: no such directory, or a process that was stopped for 8 seconds has been taken for dead, or
// somebody has removed the lock directory; then it is worth another try.
// What the file system said, otherwise; some of it is logged.
//
// Where the directory cannot be written to (EROFS, EACCES), a shared lock is granted without an
// entry, so that what is on read-only media can be read: it waits for nobody and keeps nobody out.
[[nodiscard]] FileLockToken *FileLock_Lock(const char *path, bool readOnly, uint32_t msecMaxWait,
                                           int *err, MsgList **msgList);

// The same for a wait that may be given up: as soon as the descriptor `cancelFd` is readable, at its
// end, or not open, a wait ends with ECANCELED and nothing of it is left; a lock that can be had without
// waiting is still granted.  Nothing is read from it.  -1: nothing to watch.  Signals alone end no wait;
// a handler that writes to a pipe does.
[[nodiscard]] FileLockToken *FileLock_LockCancellable(const char *path, bool readOnly,
                                                      uint32_t msecMaxWait, int cancelFd, int *err,
                                                      MsgList **msgList);

// Releases the lock and frees the token in any case.  False when the entry could not be removed,
// with cause and message as above; ENOENT: somebody else had removed it, and may have had the lock.
bool FileLock_Unlock(FileLockToken *token, int *err, MsgList **msgList);
