// sysctl.h -- the kernel's table of processes of macOS, for testing darwin code on another host.
#pragma once

#include <sys/time.h>

#include <cstddef>

enum { CTL_KERN = 1, KERN_PROC = 14, KERN_PROC_PID = 1 };

struct kinfo_proc {
  struct {
    timeval p_starttime;
  } kp_proc;
};

// The test's own.
int sysctl(int *mib, unsigned length, void *old, size_t *oldLength, void *fresh,
           size_t freshLength);
