// detach.h -- detaching from the user who ran the opener.
#pragma once

// Replaces what the process has inherited from that user: the real user, the groups, the environment,
// and, as far as the host allows, resource limits and scheduling.  False with errno set if it cannot
// become root with root's groups only.  A process that is not root (started by hand) keeps everything,
// and the result is true.
[[nodiscard]] bool Detach_FromCaller();
