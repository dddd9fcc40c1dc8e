// id.h -- the identity of the calling thread.
//
// A thread may work as another user than its process.  What is here reads and changes the identity
// of the calling thread only; other threads keep theirs.  Any thread.
#pragma once

#include <sys/types.h>

// Runs a few calls with the process's own, the super-user's, identity:
//   const uid_t saved = Id_BeginSuperUser();
//   const int fd = open(...);
//   { const ErrnoKeeper keeper; Id_EndSuperUser(saved); }
//
// The beginning returns the effective user id to go back to; (uid_t)-1, having changed nothing, when
// that is 0 already.  So brackets may be nested: only the outermost does anything.  A process that
// is not the super-user's stays what it is, and the calls inside the bracket fail as they would
// without it.  An effective user id of all ones is fatal.
[[nodiscard]] uid_t Id_BeginSuperUser();

// Goes back to the user `savedUid`, with the real group; nothing for (uid_t)-1.  When that fails,
// the thread goes on as the super-user, after a log record.  errno is not preserved.
void Id_EndSuperUser(uid_t savedUid);

// Whether the process runs, or has run, as somebody who is not its user: started set-user-ID or
// set-group-ID, or changed since.  On Linux, a change by others than the bracket that was undone is
// not noticed.
[[nodiscard]] bool Id_IsSetUGid();

// Changes of the process's identity, which this platform does not have: a warning, nothing changed,
// and -1.
int Id_SetGid(gid_t gid);
int Id_SetRESUid(uid_t real, uid_t effective, uid_t saved);
int Id_SetREUid(uid_t real, uid_t effective);
