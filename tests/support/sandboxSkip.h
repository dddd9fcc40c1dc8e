// sandboxSkip.h -- skips a test for want of a privilege or a namespace.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

// Returns from the test: skipped with the reason, or failed if the run must provide everything that tests
// need (LUMEN_REQUIRE_SANDBOX=1).
#define SKIP_FOR_WANT_OF(what)                                          \
  do {                                                                  \
    const char *const required = getenv("LUMEN_REQUIRE_SANDBOX");       \
    const std::string reason = std::string("not to be had: ") + (what); \
    if (required != nullptr && *required == '1') FAIL() << reason;      \
    GTEST_SKIP() << reason;                                             \
  } while (false)
