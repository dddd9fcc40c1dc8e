// threadIdentity.h -- the identity of the calling thread, apart from that of its process.
//
// A thread has the identity of its process until it assumes another one.  These procedures change the
// calling thread only, and return 0, or -1 with errno set.
#pragma once

#include <sys/types.h>

// Ends the assumed identity: the thread has the identity of its process again, which in a set-user-ID
// program is the program's owner.
int Platform_ResumeProcessIdentity();

// Makes the thread the user `uid` of the group `gid`.
int Platform_AssumeThreadIdentity(uid_t uid, gid_t gid);

// Whether the process was started with ids other than its user's, or has changed its ids since.
[[nodiscard]] bool Platform_IsSetUGid();
