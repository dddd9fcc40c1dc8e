// refusals_test.cpp -- what the opener checks and cleans before it meets anybody.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

#include "tests/support/product.h"
#include "tests/support/scratchDir.h"

namespace {

class Refusals : public ProductTest {
 protected:
  // Silent, and over before any file is made.
  static void ExpectSilentRefusal(const Launch &launch) {
    Process process(launch);
    EXPECT_EQ(1, process.Wait());
    EXPECT_EQ("", process.Output());
    EXPECT_NE(0, access(kLockPath.c_str(), F_OK));
    EXPECT_TRUE(Services().empty());
  }
  static Launch Hello() {
    static const Fd file = FileWith("hello");
    lseek(file.Get(), 0, SEEK_SET);
    return OpenerLaunch(file.Get());
  }
};

// ---- the daemon in the bundle -----------------------------------------------------------------

const std::string kElsewhere = "/Library/daemon";

void LinkTo(const std::string &target) {
  ASSERT_EQ(0, unlink(kBundleDaemon.c_str()));
  ASSERT_EQ(0, symlink(target.c_str(), kBundleDaemon.c_str()));
}

void Own(const std::string &path, uid_t user, gid_t group) {
  ASSERT_EQ(0, chown(path.c_str(), user, group));
}

enum class Answer { kDelivered, kSilence, kNotSigned };

struct BundleCase {
  const char *name;
  Answer answer;
  void (*make)();
};

const BundleCase kBundleCases[] = {
    {"root's", Answer::kDelivered, [] {}},
    {"of group 20", Answer::kSilence, [] { Own(kBundleDaemon, 0, 20); }},
    {"the user's", Answer::kSilence, [] { Own(kBundleDaemon, kUser, 0); }},
    {"a link of the user's to a file of root's", Answer::kNotSigned,
     [] {
       LinkTo(kElsewhere);
       ASSERT_EQ(0, lchown(kBundleDaemon.c_str(), kUser, kUser));
     }},
    {"a link to a file of the user's", Answer::kSilence,
     [] {
       LinkTo(kElsewhere);
       Own(kElsewhere, kUser, 0);
     }},
    {"a link to nothing", Answer::kSilence, [] { LinkTo("/Library/nothing"); }},
};

TEST_F(Refusals, TheDaemonInTheBundleMustBeRoots) {
  for (const BundleCase &bundle : kBundleCases) {
    SCOPED_TRACE(bundle.name);
    Reset();
    InstallProgram("LUMEN_SERVICE", kElsewhere);
    bundle.make();
    if (bundle.answer == Answer::kSilence) {
      ExpectSilentRefusal(Hello());
      continue;
    }
    const std::string record =
        "PrivilegedHelper: Failed to verify the code signature of " + kBundleDaemon + " due to 3";
    EXPECT_EQ(bundle.answer == Answer::kDelivered ? kDelivered : (Outcome{1, record}),
              OutcomeOf(Hello()));
  }
}

// ---- the installation -------------------------------------------------------------------------

TEST_F(Refusals, WithoutTheSetUserIdBitTheLockFileCannotBeMade) {
  ASSERT_EQ(0, chmod(kOpenerPath.c_str(), 0755));
  EXPECT_EQ((Outcome{1, "Warning: ServiceImplPickSockSide: open errno " + std::to_string(EACCES) +
                            ".\n"}),
            OutcomeOf(Hello()));
}

TEST_F(Refusals, ACopyOutsideABundleIsRefused) {
  const std::string copy = "/Library/lumenClient-opener";
  InstallProgram("LUMEN_OPENER", copy, 04755);
  Launch launch = Hello();
  launch.argv[0] = copy;
  EXPECT_EQ((Outcome{1, "Warning: LocationGetRoot: sUpCount (3) is too large for " + copy + "\n"}),
            OutcomeOf(launch));
}

// A user's link to the opener leads to the bundle in which the opener is, not to the one in which
// the link is.
TEST_F(Refusals, ALinkToTheOpenerDoesNotMoveTheBundle) {
  const std::string folder = "/Library/Own.app/Contents/Library";
  InstallProgram("LUMEN_SERVICE", folder + "/Zephrin Lumen Client Services");
  Own(folder + "/Zephrin Lumen Client Services", kUser, kUser);
  ASSERT_EQ(0, symlink(kOpenerPath.c_str(), (folder + "/opener").c_str()));
  Launch launch = Hello();
  launch.argv[0] = folder + "/opener";
  EXPECT_EQ(kDelivered, OutcomeOf(launch));
}

// ---- the environment --------------------------------------------------------------------------

// Those to go stand side by side, most of them once: a walk that goes on after a removal without
// beginning again would miss every other one.
const std::vector<std::string> kRemoved = {
    "f=() { :; }; reboot", "BASH_ENV=/x", "ENV=",     "SHELLOPTS=xtrace",
    "BASH_FUNC_g%%=() {",  "ENV=twin",    "ENV=twin",
};
const std::vector<std::string> kKept = {
    "PATH=/usr/bin:/bin", "MYENV=1",     "XBASH_ENV=1", "env=1",   "ENVIRON=1",
    "a= () { :;}",        "b=x() { :;}", "c=()  {",     "d=(){ :", "e=k=() {",
    "short=() ",          "EMPTY=",      "() {",        "ENV",     "BASH_ENV",
    "SHELLOPTS",
};

TEST_F(Refusals, TheServiceDoesNotSeeWhatMakesShellsRunCode) {
  InstallDaemon("LUMEN_PROBE");
  Launch launch = Hello();
  launch.env.insert(launch.env.end(), kKept.begin(), kKept.end());
  std::string expected;
  for (const std::string &entry : launch.env) expected += "env " + entry + "\n";
  launch.env.insert(launch.env.begin() + 5, kRemoved.begin(), kRemoved.end());
  EXPECT_EQ(kDelivered, OutcomeOf(launch));
  const std::string report = ReadFile(kProbeReport);
  EXPECT_EQ(expected, report.substr(std::min(report.size(), report.find("env "))));
}

// unsetenv cannot remove a variable without a name.
TEST_F(Refusals, AnEntryThatCannotBeRemovedEndsTheOpener) {
  Launch launch = Hello();
  launch.env.push_back("=() { :; }");
  ExpectSilentRefusal(launch);
}

}  // namespace
