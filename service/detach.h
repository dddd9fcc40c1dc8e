// detach.h -- shaking off the user who ran the opener.
#pragma once

// Takes from the process what it has inherited from that user: the real user, the groups, the
// environment, and, as far as the host allows, resource limits and scheduling.  False with errno set
// when it cannot become root alone.  A process that is not root, started by hand, keeps all of it,
// which is no failure.
[[nodiscard]] bool Detach_FromCaller();
