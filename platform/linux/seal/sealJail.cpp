// sealJail.cpp -- giving up all rights but reading: limits, identity, capabilities.

#include "platform/linux/seal/sealJail.h"

#include <grp.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>

namespace {

constexpr uid_t kNobody = 65534;
constexpr uint32_t kReading = 1U << CAP_DAC_READ_SEARCH;

struct Limit {
  __rlimit_resource_t resource;
  rlim_t most;
};

constexpr Limit kLimits[] = {
#ifndef LUMEN_INSTRUMENTED
    // A sanitizer reserves room for its shadow.
    {RLIMIT_AS, rlim_t{256} << 20},  // a seal of the largest size needs 80 MiB
#endif
    {RLIMIT_CPU, 60},      // seconds, for all questions together
    {RLIMIT_NOFILE, 128},  // a walk has two for each level
    {RLIMIT_FSIZE, 0},
    {RLIMIT_CORE, 0},
    {RLIMIT_NPROC, 0},
};

// Limits that were inherited may be lower; only root can raise them.
bool SetLimits() {
  for (const Limit &limit : kLimits) {
    rlimit both = {limit.most, limit.most};
    if (setrlimit(limit.resource, &both) == 0) continue;
    if (errno != EPERM || getrlimit(limit.resource, &both) != 0) return false;
    both.rlim_cur = both.rlim_max = std::min(both.rlim_max, limit.most);
    if (setrlimit(limit.resource, &both) != 0) return false;
  }
  return true;
}

bool LeaveRoot() {
  if (geteuid() != 0) return true;
  return setgroups(0, nullptr) == 0 && setresgid(kNobody, kNobody, kNobody) == 0 &&
         setresuid(kNobody, kNobody, kNobody) == 0;
}

// Of what a later exec could give, too.
bool DropCapabilities() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  const uint32_t reading = data[0].permitted & kReading;
  data[0] = {reading, reading, 0};
  data[1] = {};
  return syscall(SYS_capset, &header, data) == 0;
}

// While there still is the right to, and without it there is nothing to drop for.
bool EmptyBoundingSet() {
  for (unsigned long capability = 0;; capability++) {
    if (prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0) continue;
    // EINVAL: there are no more.
    return errno == EINVAL || errno == EPERM;
  }
}

bool DropIdentity() {
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && EmptyBoundingSet() &&
         prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) == 0 && LeaveRoot() && DropCapabilities() &&
         prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) == 0 &&
         prctl(PR_SET_KEEPCAPS, 0, 0, 0, 0) == 0;
}

// The proof: nobody becomes root here any more.
bool IsRootGone() {
  if (setresuid(0, 0, 0) != 0 && geteuid() != 0) return true;
  errno = EPERM;
  return false;
}

bool CloseToOthers() {
  return prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0) == 0;
}

}  // namespace

bool SealJailEnter() {
  return SetLimits() && DropIdentity() && IsRootGone() && CloseToOthers() && SealJailFilterCalls();
}
