// detach.cpp -- what a user could otherwise do to a service that root runs for everybody: signal
// it, starve it of descriptors or time, have its log stamped from a time zone file of his own.

#include "service/detach.h"

#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

extern char **environ;

namespace {

struct Limit {
  decltype(RLIMIT_NOFILE) resource;
  rlim_t atLeast;
};

constexpr Limit kLimits[] = {
    {RLIMIT_AS, RLIM_INFINITY},     // memory
    {RLIMIT_CPU, RLIM_INFINITY},    // seconds
    {RLIMIT_DATA, RLIM_INFINITY},   // memory
    {RLIMIT_FSIZE, RLIM_INFINITY},  // the log
    {RLIMIT_NOFILE, 2048},          // two for a connection, and some
};

char *noEnvironment[] = {nullptr};

// Groups go first: without the user there would be no right left to change them.
bool BecomeRootAlone() {
  return setgroups(0, nullptr) == 0 && setgid(0) == 0 && setuid(0) == 0;
}

// As far as it goes: some hosts keep even root from raising a hard limit, and a service with little
// room is better than openers that start one in vain, again and again.
void RaiseLimit(const Limit &limit) {
  rlimit now;
  if (getrlimit(limit.resource, &now) != 0) return;
  const rlimit wanted = {std::max(now.rlim_cur, limit.atLeast),
                         std::max(now.rlim_max, limit.atLeast)};
  if (setrlimit(limit.resource, &wanted) == 0) return;
  const rlimit possible = {now.rlim_max, now.rlim_max};
  setrlimit(limit.resource, &possible);
}

}  // namespace

bool Detach_FromCaller() {
  if (geteuid() != 0) return true;
  environ = noEnvironment;
  if (!BecomeRootAlone()) return false;
  for (const Limit &limit : kLimits) RaiseLimit(limit);
  return true;
}
