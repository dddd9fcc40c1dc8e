// sysctl.h -- a stand-in; tests/unit/darwin_test.cpp defines it.
#pragma once

#include <sys/types.h>

#include <cstddef>

enum { CTL_KERN = 1, KERN_PROC = 14, KERN_MAXFILESPERPROC = 29, KERN_PROC_PID = 1 };

struct kinfo_proc {
  struct {
    struct {
      uid_t p_ruid;
    } e_pcred;
  } kp_eproc;
};

int sysctl(int *mib, unsigned length, void *old, size_t *oldLength, void *fresh,
           size_t freshLength);
