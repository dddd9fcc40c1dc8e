// sealJail.cpp -- gives up all rights but reading: limits, identity, capabilities.
// Tests: tests/system/verifier_test.cpp

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
    // A sanitizer reserves terabytes for its shadow memory.
    {RLIMIT_AS, rlim_t{256} << 20},  // a seal of the largest size needs 80 MiB
#endif
    {RLIMIT_CPU, 60},      // seconds, for all requests together
    {RLIMIT_NOFILE, 128},  // a walk needs two for each level
    {RLIMIT_FSIZE, 0},
    {RLIMIT_CORE, 0},
    {RLIMIT_NPROC, 0},
};

// Inherited limits may be lower already, and only root can raise them.
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

// Keeps CAP_DAC_READ_SEARCH, if it is there, as permitted and effective, and nothing as inheritable.
bool DropCapabilities() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  const uint32_t reading = data[0].permitted & kReading;
  data[0] = {reading, reading, 0};
  data[1] = {};
  return syscall(SYS_capset, &header, data) == 0;
}

// So that no exec can give a capability back.  Must precede LeaveRoot, which loses the right to do it; a
// process that never had that right could not gain any capability by exec either.
bool EmptyBoundingSet() {
  for (unsigned long capability = 0;; capability++) {
    if (prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0) continue;
    // EINVAL: past the last capability.
    return errno == EINVAL || errno == EPERM;
  }
}

bool DropIdentity() {
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && EmptyBoundingSet() &&
         prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) == 0 && LeaveRoot() && DropCapabilities() &&
         prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0) == 0 &&
         prctl(PR_SET_KEEPCAPS, 0, 0, 0, 0) == 0;
}

// Proves it: becoming root fails from now on.
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
