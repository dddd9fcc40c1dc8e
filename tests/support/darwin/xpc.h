// xpc.h -- objects of the stand-in for XPC, and what a test does in XPC's place.
#pragma once

#include <xpc/xpc.h>

struct _xpc_type_s {
  int unused;
};

struct XpcObject {
  xpc_type_t type;
  const char *description = nullptr;  // an error's
  pid_t pid = 0;                      // a connection's, like all below
  const void *handler = nullptr;      // a Block
  bool resumed = false;
};

// The process that has exited; every other one runs "/bin/PID".
constexpr pid_t kExitedProcess = 321;
