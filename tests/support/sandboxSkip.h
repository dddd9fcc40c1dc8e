// sandboxSkip.h -- leaving a test that needs a privilege or a namespace which is not to be had.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string_view>

// Whether the run promises everything that tests may need (LUMEN_REQUIRE_SANDBOX=1).
inline bool SandboxIsRequired() {
  const char *const value = getenv("LUMEN_REQUIRE_SANDBOX");
  return value != nullptr && std::string_view(value) == "1";
}

// Returns from the test: skipped with the reason, or failed when the run promised otherwise.
#define SKIP_FOR_WANT_OF(what)                                      \
  do {                                                              \
    if (SandboxIsRequired()) FAIL() << "not to be had: " << (what); \
    GTEST_SKIP() << "not to be had: " << (what);                    \
  } while (false)
