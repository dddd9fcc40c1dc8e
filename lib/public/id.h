// id.h -- the identity of the calling thread.
#pragma once

#include <sys/types.h>

// Runs the calling thread as the super-user for a few calls:
//   const uid_t saved = Id_BeginSuperUser();
//   ...
//   Id_EndSuperUser(saved);
// Other threads keep their identity.
[[nodiscard]] uid_t Id_BeginSuperUser();
void Id_EndSuperUser(uid_t savedUid);

// Whether the process runs, or has run, with identities that are not its user's.
[[nodiscard]] bool Id_IsSetUGid();

// Changes of identity that this platform does not have: a warning, and -1.
int Id_SetGid(gid_t gid);
int Id_SetRESUid(uid_t real, uid_t effective, uid_t saved);
int Id_SetREUid(uid_t real, uid_t effective);
