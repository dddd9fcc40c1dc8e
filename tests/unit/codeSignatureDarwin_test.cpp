// codeSignatureDarwin_test.cpp -- the macOS side of code signatures: what is asked of the system, the
// failure code of each step, and that every object is released whatever fails.

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "platform/codeSignature.h"
#include "tests/support/darwin/frameworks.h"

namespace {

TEST(CodeSignatureDarwin, TellsTheStepThatFailedAndReleasesAll) {
  // A row for each call that can fail, in order; creating code and requirement fails in three ways.
  int nth = 0;
  for (const int failure : {1, 2, 3, 3, 3, 5, 6, 6, 6, 7, 0}) {
    frameworks = {.callsToFailure = ++nth};
    EXPECT_EQ(failure, Platform_VerifyCodeSignature("/a/b", 0, "Zephrin Services").failure) << nth;
    EXPECT_EQ(0, frameworks.liveObjects) << nth;
  }
  EXPECT_EQ(
      "code 0\n"
      "requirement identifier \"Zephrin Services\" and anchor apple generic and anchor trusted and "
      "cert leaf[subject.CN] = *\"Zephrin, Inc.\"* 0\n"
      "check 1\n",
      frameworks.securityCalls);
  // An identifier cannot change the requirement.
  for (const char *const identifier :
       {"a\" or anchor apple or identifier \"b", "a\\", "a\n", "\xC3\xA9"}) {
    frameworks = {};
    EXPECT_EQ(6, Platform_VerifyCodeSignature("/a/b", 0, identifier).failure) << identifier;
    EXPECT_EQ("code 0\n", frameworks.securityCalls);
  }
}

TEST(CodeSignatureDarwin, BundlesNameThemselvesAndReleaseAll) {
  // Path, URL, bundle, identifier; then room for the text and the text itself.
  int nth = 0;
  for (const int failure : {1, 2, 3, 4, 0, 0, 0}) {
    frameworks = {.callsToFailure = ++nth};
    const PlatformBundleIdentifier found = Platform_BundleIdentifier("/a/b.kext", 0);
    EXPECT_EQ(failure, found.failure) << nth;
    EXPECT_STREQ(nth == 7 ? kFrameworksBundle : nullptr, found.text.get()) << nth;
    EXPECT_EQ(0, frameworks.liveObjects) << nth;
  }
  EXPECT_EQ(1, Platform_BundleIdentifier("/a/\xFF", 0).failure);
  const std::string direct = "at hand";
  frameworks.direct = direct.c_str();
  const PlatformBundleIdentifier found = Platform_BundleIdentifier("/a/b.kext", 0);
  EXPECT_STREQ("at hand", found.text.get());
  EXPECT_NE(direct.c_str(), found.text.get());
  frameworks = {};
}

}  // namespace
