// id.h -- the identity of the calling thread.
//
// A thread may act as another user than its process.  These procedures read and change the identity of
// the calling thread only; other threads keep theirs.  Any thread.
#pragma once

#include <sys/types.h>

// Run a few calls with the identity of the process, which is the super-user's:
//   const uid_t saved = Id_BeginSuperUser();
//   const int fd = open(...);
//   { const ErrnoKeeper keeper; Id_EndSuperUser(saved); }
//
// The beginning returns the effective user id to go back to.  When that is 0 already, it changes nothing
// and returns (uid_t)-1, so brackets may be nested: only the outermost does anything.  If the process is
// not the super-user's, the identity stays as it is, and the calls inside the bracket fail as they would
// without it.  An effective user id of all ones is fatal.
[[nodiscard]] uid_t Id_BeginSuperUser();

// Goes back to the user `savedUid`, with the real group; does nothing for (uid_t)-1.  If that fails, the
// thread goes on as the super-user, after a log record.  errno is not preserved.
void Id_EndSuperUser(uid_t savedUid);

// Whether the process runs, or has run, with other ids than its user's: because it was started
// set-user-ID or set-group-ID, or has changed its ids since.  On Linux a change that was undone is only
// noticed if the bracket made it.
[[nodiscard]] bool Id_IsSetUGid();

// Changes of the process's identity.  This platform does not support them: they log a warning, change
// nothing and return -1.
int Id_SetGid(gid_t gid);
int Id_SetRESUid(uid_t real, uid_t effective, uid_t saved);
int Id_SetREUid(uid_t real, uid_t effective);
