// threadIdentity.h -- the identity of the calling thread, apart from that of its process.
//
// A thread is as its process until it assumes an identity.  These change the calling thread only,
// and return 0, or -1 with errno set.
#pragma once

#include <sys/types.h>

// Gives up what the thread has assumed: it is again as the process that started it, which for a
// set-user-ID program is the program's owner.
int Platform_DropThreadIdentity();

// Makes the thread the user `uid` of the group `gid`.
int Platform_AssumeThreadIdentity(uid_t uid, gid_t gid);

// Whether the process was started as somebody other than its user, or has changed its identity since.
[[nodiscard]] bool Platform_IsSetUGid();
