// codeSignatureDarwin_test.cpp -- the macOS side of code signatures: what is asked of the system, the
// failure code of each step, and that every object is released whatever fails.

#include <gtest/gtest.h>

#include <string>

#include "platform/codeSignature.h"
#include "tests/support/darwin/coreFoundation.h"

namespace {

class CodeSignatureDarwin : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(0, CoreFoundation_LiveObjects()); }
};

TEST_F(CodeSignatureDarwin, TellsTheStepThatFailedAndReleasesAll) {
  // A row for each call that can fail, in order; creating code and requirement fails in three ways:
  // with an error, with an error and an object, without either.
  int nth = 0;
  for (const int failure : {1, 2, 3, 3, 3, 5, 6, 6, 6, 7, 0}) {
    CoreFoundation_FailCall(++nth);
    Security_Calls();
    EXPECT_EQ(failure, Platform_VerifyCodeSignature("/a/b", "Zephrin Services")) << nth;
    EXPECT_EQ(0, CoreFoundation_LiveObjects()) << nth;
  }
  EXPECT_EQ(
      "code 0\n"
      "requirement identifier \"Zephrin Services\" and anchor apple generic and anchor trusted and "
      "cert leaf[subject.CN] = *\"Zephrin, Inc.\"* 0\n"
      "check 1\n",
      Security_Calls());
  CoreFoundation_FailCall(0);
  EXPECT_EQ(1, Platform_VerifyCodeSignature("/a/\xFF", "services"));
}

TEST_F(CodeSignatureDarwin, AnIdentifierCannotChangeTheRequirement) {
  for (const char *identifier :
       {"a\" or anchor apple or identifier \"b", "a\\", "a\n", "\xC3\xA9"}) {
    Security_Calls();
    EXPECT_EQ(6, Platform_VerifyCodeSignature("/a/b", identifier)) << identifier;
    EXPECT_EQ("code 0\n", Security_Calls());
  }
}

TEST_F(CodeSignatureDarwin, BundlesNameThemselvesAndReleaseAll) {
  CoreFoundation_SetBundle("a.\u00E9", nullptr);
  int nth = 0;
  // Path, URL, bundle, identifier, room for the text, the text.
  for (const int failure : {1, 2, 3, 4, 0, 0, 0}) {
    CoreFoundation_FailCall(++nth);
    const PlatformBundleIdentifier found = Platform_BundleIdentifier("/a/b.kext");
    EXPECT_EQ(failure, found.failure) << nth;
    EXPECT_STREQ(nth == 7 ? "a.\u00E9" : "", found.text == nullptr ? "" : found.text.get()) << nth;
    EXPECT_EQ(0, CoreFoundation_LiveObjects()) << nth;
  }
  CoreFoundation_FailCall(0);
  const std::string direct = "at.hand";
  CoreFoundation_SetBundle("elsewhere", direct.c_str());
  const PlatformBundleIdentifier found = Platform_BundleIdentifier("/a/b.kext");
  EXPECT_STREQ("at.hand", found.text.get());
  EXPECT_NE(direct.c_str(), found.text.get());
  CoreFoundation_SetBundle(nullptr, nullptr);
  EXPECT_EQ(4, Platform_BundleIdentifier("/a/b.kext").failure);
}

}  // namespace
