// detach.cpp -- undoes what the service inherits from the user whose opener started it.  Otherwise that
// user could signal it, starve it of descriptors, memory or processor time, or choose the time zone of its
// log.  docs/protocol.md, "What stays of the user", lists what a process cannot undo.
// Tests: tests/system/service_test.cpp

#include "service/detach.h"

#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "platform/scheduling.h"

extern char **environ;

namespace {

using Resource = decltype(RLIMIT_NOFILE);

// The limit that the service needs; none, unless listed here.
rlim_t Needed(Resource resource) {
  switch (resource) {
    case RLIMIT_NOFILE:
      return 2048;  // one per connection, and a few; no host allows RLIM_INFINITY
    case RLIMIT_STACK:
      return rlim_t{8} << 20;
    case RLIMIT_CORE:
      return 0;
    default:
      return RLIM_INFINITY;
  }
}

char *noEnvironment[] = {nullptr};

// Supplementary groups and group first, while the process may still change them.
bool BecomeRootAlone() {
  return setgroups(0, nullptr) == 0 && setgid(0) == 0 && setuid(0) == 0;
}

// Best effort: some hosts do not let even root raise a hard limit, and a service with little room is
// better than openers that try to start one again and again.
void RaiseLimit(Resource resource) {
  rlimit now;
  if (getrlimit(resource, &now) != 0) return;
  const rlim_t needed = Needed(resource);
  const rlimit wanted = {std::max(now.rlim_cur, needed), std::max(now.rlim_max, needed)};
  if (setrlimit(resource, &wanted) == 0) return;
  const rlimit possible = {now.rlim_max, now.rlim_max};
  setrlimit(resource, &possible);
}

// Core files are disabled, since the memory contains what other users delivered.
void ResetLimits() {
  for (int i = 0; i < RLIM_NLIMITS; i++) RaiseLimit(static_cast<Resource>(i));
  const rlimit none = {};
  setrlimit(RLIMIT_CORE, &none);
}

}  // namespace

bool Detach_FromCaller() {
  if (geteuid() != 0) return true;
  environ = noEnvironment;
  if (!BecomeRootAlone()) return false;
  ResetLimits();
  Platform_ResetScheduling();
  return true;
}
