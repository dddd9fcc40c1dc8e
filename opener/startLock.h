// startLock.h -- only one opener at a time may start the daemon.
//
// The lock file covers only the choice of side.  An opener holds this second lock from before it
// replaces the socket until its daemon runs.  Nobody waits for it.
#pragma once

// Takes the lock that goes with the lock file `lockPath` (not null): the file of that name with
// ".start" appended, created with mode 0600 if absent.  Returns a close-on-exec descriptor; the lock is
// released when all copies of it are closed, those of children included.  -1 with errno set: EAGAIN if
// another process holds it.  The caller must be able to write to the folder.
[[nodiscard]] int StartLockTake(const char *lockPath);
