// startLock.h -- one starter of the daemon at a time.
//
// The lock beside the socket covers the choice of side alone.  From before an opener makes the socket
// its own until its daemon runs, it holds this second lock as well.  Nobody waits for it.
//
// A header of its own, so that a test can show what happens without the lock.
#pragma once

// Takes the lock that goes with the lock file `lockPath` (not null): the file of that name with
// ".start" appended, made with mode 0600 if absent.  Returns a descriptor, closed on exec; all copies
// of it, those of children included, must be closed to release the lock.  -1 with errno set: EAGAIN
// when another process has it.  Needs the rights to write in the folder.
[[nodiscard]] int StartLockTake(const char *lockPath);
