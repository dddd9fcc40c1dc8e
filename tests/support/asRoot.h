// asRoot.h -- tests that need root, run by an ordinary user.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/sandboxSkip.h"

// Runs the current test, and no other, as root: this program once more, in a sandbox.  Returns its
// exit status, or the one with which tests/support/sandbox says that there can be none.
int StatusOfTestInSandbox();

inline constexpr int kNoSandbox = 77;

// Put first into a test: goes on if this process is root.  If not, the test ends here as it has ended
// in a sandbox, and what it prints there is printed.
#define RUN_AS_ROOT()                                                                  \
  do {                                                                                 \
    if (geteuid() == 0) break;                                                         \
    const int statusAsRoot = StatusOfTestInSandbox();                                  \
    if (statusAsRoot == kNoSandbox) SKIP_FOR_WANT_OF("root, or a sandbox to have it"); \
    ASSERT_EQ(0, statusAsRoot) << "as root in a sandbox";                              \
    return;                                                                            \
  } while (false)
