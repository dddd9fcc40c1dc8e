// asRoot.h -- lets an ordinary user run tests that need root.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/sandboxSkip.h"

// Runs only the current test, as root, by running this program again in a sandbox.  Returns its exit
// status, or kNoSandbox.
int StatusOfTestInSandbox();

inline constexpr int kNoSandbox = 77;

// For the beginning of a test: continues if this process is root.  Otherwise runs the test in a sandbox,
// with its output, and returns with that result.
#define RUN_AS_ROOT()                                                                  \
  do {                                                                                 \
    if (geteuid() == 0) break;                                                         \
    const int statusAsRoot = StatusOfTestInSandbox();                                  \
    if (statusAsRoot == kNoSandbox) SKIP_FOR_WANT_OF("root, or a sandbox to have it"); \
    ASSERT_EQ(0, statusAsRoot) << "as root in a sandbox";                              \
    return;                                                                            \
  } while (false)
