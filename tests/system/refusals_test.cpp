// refusals_test.cpp -- what the opener checks and cleans before it meets anybody.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

#include "tests/support/product.h"
#include "tests/support/scratchDir.h"

namespace {

const Outcome kDelivered = {0, ""};

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

struct BundleCase {
  const char *name;
  bool accepted;
  void (*make)();
};

const BundleCase kBundleCases[] = {
    {"root's", true, [] {}},
    {"missing", false, [] { unlink(kBundleDaemon.c_str()); }},
    {"of group 20", false, [] { Own(kBundleDaemon, 0, 20); }},
    {"the user's", false, [] { Own(kBundleDaemon, kUser, 0); }},
    {"a link to a file of root's", true,
     [] {
       InstallProgram("LUMEN_SERVICE", kElsewhere);
       LinkTo(kElsewhere);
     }},
    {"a link of the user's to a file of root's", true,
     [] {
       InstallProgram("LUMEN_SERVICE", kElsewhere);
       LinkTo(kElsewhere);
       ASSERT_EQ(0, lchown(kBundleDaemon.c_str(), kUser, kUser));
     }},
    {"a link to a file of the user's", false,
     [] {
       InstallProgram("LUMEN_SERVICE", kElsewhere);
       Own(kElsewhere, kUser, 0);
       LinkTo(kElsewhere);
     }},
    {"a link to nothing", false, [] { LinkTo("/Library/nothing"); }},
    {"in a folder that only root may enter", true, [] { chmod(kBundleLibrary.c_str(), 0711); }},
};

TEST_F(Refusals, TheDaemonInTheBundleMustBeRoots) {
  for (const BundleCase &bundle : kBundleCases) {
    SCOPED_TRACE(bundle.name);
    Reset();
    bundle.make();
    if (bundle.accepted) {
      EXPECT_EQ(kDelivered, OutcomeOf(Hello()));
    } else {
      ExpectSilentRefusal(Hello());
    }
    chmod(kBundleLibrary.c_str(), 0755);
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

struct Entry {
  const char *text;
  bool kept;
};

constexpr Entry kEntries[] = {
    {"BASH_ENV=/etc/profile", false},
    {"PATH=/usr/bin:/bin", true},
    {"ENV=", false},
    {"SHELLOPTS=xtrace", false},
    {"SHELLOPTS=twice", false},
    {"BASH_FUNC_ls%%=() { :; }", false},
    {"ls=() {", false},
    {"MYENV=1", true},
    {"XBASH_ENV=1", true},
    {"ENVY=1", true},
    {"env=lower case", true},
    {"later=x() { :; }", true},
    {"second=a=() { :; }", true},
    {"spaced= () { :; }", true},
    {"short=() ", true},
    {"ENV", true},  // no entry of a variable, and no end of the list
    {"SHELLOPTS", true},
    {"last=1", true},
};

TEST_F(Refusals, TheServiceDoesNotSeeWhatMakesShellsRunCode) {
  InstallProgram("LUMEN_PROBE", kStagedDaemon);
  Launch launch = Hello();
  std::string expected = "env " + launch.env[0] + "\n";
  for (const Entry &entry : kEntries) {
    launch.env.push_back(entry.text);
    if (entry.kept) expected += std::string("env ") + entry.text + "\n";
  }
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
