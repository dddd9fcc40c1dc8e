// detach.cpp -- what a user could otherwise do to a service that root runs for everybody: signal
// it, starve it of descriptors, memory or time, have its log stamped in a time zone of their choice.
// What no process can take off itself stays; docs/protocol.md, "What stays of the user", has it.

#include "service/detach.h"

#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "platform/scheduling.h"

extern char **environ;

namespace {

using Resource = decltype(RLIMIT_NOFILE);

// What the service needs of a resource; everything, if nothing is said here.
rlim_t Needed(Resource resource) {
  switch (resource) {
    case RLIMIT_NOFILE:
      return 2048;  // one for each of the slots, and some; no host grants any number
    case RLIMIT_STACK:
      return rlim_t{8} << 20;
    case RLIMIT_CORE:
      return 0;
    default:
      return RLIM_INFINITY;
  }
}

char *noEnvironment[] = {nullptr};

// Groups go first: without the user there would be no right left to change them.
bool BecomeRootAlone() {
  return setgroups(0, nullptr) == 0 && setgid(0) == 0 && setuid(0) == 0;
}

// As far as it goes: some hosts keep even root from raising a hard limit, and a service with little
// room is better than openers that start one in vain, again and again.
void RaiseLimit(Resource resource) {
  rlimit now;
  if (getrlimit(resource, &now) != 0) return;
  const rlim_t needed = Needed(resource);
  const rlimit wanted = {std::max(now.rlim_cur, needed), std::max(now.rlim_max, needed)};
  if (setrlimit(resource, &wanted) == 0) return;
  const rlimit possible = {now.rlim_max, now.rlim_max};
  setrlimit(resource, &possible);
}

// No core files, either, whatever the user likes: the memory has what others delivered.
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
