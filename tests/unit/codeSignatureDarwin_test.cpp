// codeSignatureDarwin_test.cpp -- the macOS side of code signatures: what is asked of the system, the
// failure code of each step, and that every object is released whatever fails.

#include <gtest/gtest.h>

#include <string>

#include "platform/codeSignature.h"
#include "tests/support/darwin/coreFoundation.h"

namespace {

TEST(CodeSignatureDarwin, TellsTheStepThatFailedAndReleasesAll) {
  // A row for each call that can fail, in order; creating code and requirement fails in three ways:
  // with an error, with an error and an object, without either.
  constexpr int kFailures[] = {1, 2, 3, 3, 3, 5, 6, 6, 6, 7, 0};
  int nth = 0;
  for (const int failure : kFailures) {
    CoreFoundation_FailCall(++nth);
    EXPECT_EQ(failure, Platform_VerifyCodeSignature("/a/b", "services")) << nth;
    EXPECT_EQ(0, CoreFoundation_LiveObjects()) << nth;
  }
  CoreFoundation_FailCall(0);
  EXPECT_EQ(1, Platform_VerifyCodeSignature("/a/\xFF", "services"));
  EXPECT_EQ(0, CoreFoundation_LiveObjects());
}

TEST(CodeSignatureDarwin, AsksForTheDesignatedRequirement) {
  Security_Calls();
  EXPECT_EQ(0, Platform_VerifyCodeSignature("/a/b", "Zephrin Lumen Client Services"));
  EXPECT_EQ(
      "code 0\n"
      "requirement identifier \"Zephrin Lumen Client Services\" and anchor apple generic and "
      "anchor trusted and cert leaf[subject.CN] = *\"Zephrin, Inc.\"* 0\n"
      "check 1\n",
      Security_Calls());
}

TEST(CodeSignatureDarwin, AnIdentifierCannotChangeTheRequirement) {
  for (const char *identifier :
       {"a\" or anchor apple or identifier \"b", "a\\", "a\n", "\xC3\xA9"}) {
    Security_Calls();
    EXPECT_EQ(6, Platform_VerifyCodeSignature("/a/b", identifier)) << identifier;
    EXPECT_EQ("code 0\n", Security_Calls());
    EXPECT_EQ(0, CoreFoundation_LiveObjects());
  }
}

TEST(BundleIdentifierDarwin, TellsTheStepThatFailedAndReleasesAll) {
  struct Row {
    int failure;
    const char *text;
  };
  // Path, URL, bundle, identifier, room for the text, the text.
  constexpr Row kRows[] = {{1, ""}, {2, ""}, {3, ""}, {4, ""}, {0, ""}, {0, ""}, {0, "a.\u00E9"}};
  CoreFoundation_SetBundle("a.\u00E9", nullptr);
  int nth = 0;
  for (const Row &row : kRows) {
    CoreFoundation_FailCall(++nth);
    const PlatformBundleIdentifier found = Platform_BundleIdentifier("/a/b.kext");
    EXPECT_EQ(row.failure, found.failure) << nth;
    EXPECT_EQ(std::string(row.text), found.text == nullptr ? "" : found.text.get()) << nth;
    EXPECT_EQ(0, CoreFoundation_LiveObjects()) << nth;
  }
  CoreFoundation_FailCall(0);
  CoreFoundation_SetBundle(nullptr, nullptr);
  EXPECT_EQ(4, Platform_BundleIdentifier("/a/b.kext").failure);
  EXPECT_EQ(0, CoreFoundation_LiveObjects());
}

TEST(BundleIdentifierDarwin, CopiesTheTextThatTheStringHasAtHand) {
  const std::string direct = "at.hand";
  CoreFoundation_SetBundle("elsewhere", direct.c_str());
  const PlatformBundleIdentifier found = Platform_BundleIdentifier("/a/b.kext");
  EXPECT_EQ(0, found.failure);
  EXPECT_NE(direct.c_str(), found.text.get());
  EXPECT_STREQ("at.hand", found.text.get());
  EXPECT_EQ(0, CoreFoundation_LiveObjects());
}

}  // namespace
