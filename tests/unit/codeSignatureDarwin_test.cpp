// codeSignatureDarwin_test.cpp -- the macOS side of code signatures: what is asked of the system, the
// failure code of each step, that every object is released whatever fails, and what is vouched for.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>

#include "platform/codeSignature.h"
#include "tests/support/darwin/frameworks.h"
#include "tests/support/scratchDir.h"

namespace fs = std::filesystem;

namespace {

PlatformSignature Verify(const std::string &path, const char *identifier = "Zephrin Services") {
  const Fd item = Platform_OpenSignedItem(path.c_str());
  return Platform_VerifyCodeSignature(path.c_str(), item.Get(), identifier);
}

TEST(CodeSignatureDarwin, TellsTheStepThatFailedAndReleasesAll) {
  const ScratchDir dir;
  const std::string path = dir.Write("item", "");
  // A row for each call that can fail, in order; creating code and requirement fails in three ways.
  int nth = 0;
  for (const int failure : {1, 2, 3, 3, 3, 5, 6, 6, 6, 7, 0}) {
    frameworks = {.callsToFailure = ++nth};
    EXPECT_EQ(failure, Verify(path).failure) << nth;
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
    EXPECT_EQ(6, Verify(path, identifier).failure) << identifier;
    EXPECT_EQ("code 0\n", frameworks.securityCalls);
  }
}

// $I is the item, a file of 5 bytes or a bundle, and `act` is done during the check.
struct Exchange {
  bool bundle;
  const char *act;
  int failure;
};

constexpr Exchange kExchanges[] = {
    {false, "true", 0},
    {false, "mv $I $I.old; cp $I.old $I", 7},
    {false, "mv $I $I.old; ln -s $I.old $I", 7},
    {false, "rm $I", 7},
    {false, "printf 54321 >$I", 7},
    {false, "echo >>$I", 7},
    {true, "true", 0},
    {true, "mv $I $I.old; cp -r $I.old $I", 7},
    {true, "touch $I/more", 7},
};

TEST(CodeSignatureDarwin, VouchesForTheOpenItemAndItsExtent) {
  for (const Exchange &row : kExchanges) {
    const ScratchDir dir;
    const std::string item = dir.Path("item"), shell = "I='" + item + "'; ";
    const std::string make = row.bundle
                                 ? "mkdir -p $I/a/b; printf 123 >$I/a/x; printf 45 >$I/a/b/y;"
                                   "ln -s x $I/a/z; mkfifo $I/f"
                                 : "printf 12345 >$I";
    ASSERT_EQ(0, system((shell + make).c_str()));
    frameworks = {.atCheck = [&] {
      usleep(20'000);  // by which times differ
      EXPECT_EQ(0, system((shell + row.act).c_str()));
    }};
    const PlatformSignature found = Verify(item);
    EXPECT_EQ(row.failure, found.failure) << row.act;
    EXPECT_EQ(row.failure == 0 ? 5U : 0U, found.extent.bytes) << row.act;
    EXPECT_EQ(row.failure == 0 && row.bundle ? 6U : 0U, found.extent.entries) << row.act;
  }
  frameworks = {};
}

TEST(CodeSignatureDarwin, OpensFilesAndDirectoriesAndNothingElse) {
  const ScratchDir dir;
  const std::string link = dir.Path("link"), fifo = dir.Path("fifo"), deep = dir.Path("deep");
  ASSERT_TRUE(symlink(".", link.c_str()) == 0 && mkfifo(fifo.c_str(), 0600) == 0);
  for (const auto &[path, error] :
       {std::pair{link, ELOOP}, {fifo, ENOTSUP}, {deep, ENOENT}, {"/dev/null", ENOTSUP}}) {
    EXPECT_TRUE(!Platform_OpenSignedItem(path.c_str()) && errno == error) << path;
    EXPECT_EQ(3, Verify(path).failure) << path;
  }
  // Deeper than any bundle.
  fs::path path = deep;
  for (int i = 0; i < 40; i++) path /= "d";
  fs::create_directories(path);
  const PlatformSignature found = Verify(deep);
  EXPECT_TRUE(found.failure == 7 && found.obstacle != nullptr && found.error == ELOOP);
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
  EXPECT_EQ(3, Platform_BundleIdentifier("/a/b.kext", -1).failure);
  // A property list may have a number there.
  frameworks.oddIdentifier = true;
  EXPECT_EQ(4, Platform_BundleIdentifier("/a/b.kext", 0).failure);
  frameworks.oddIdentifier = false;
  const std::string direct = "at hand";
  frameworks.direct = direct.c_str();
  const PlatformBundleIdentifier found = Platform_BundleIdentifier("/a/b.kext", 0);
  EXPECT_STREQ("at hand", found.text.get());
  EXPECT_NE(direct.c_str(), found.text.get());
  frameworks = {};
}

}  // namespace
