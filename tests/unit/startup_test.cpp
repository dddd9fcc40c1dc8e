// startup_test.cpp -- the environment scrub and the ownership check.

#include "opener/startup.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"

extern char **environ;

namespace {

// What is left of `entries` after a scrub, one a line, and how the process ended.
ChildResult Scrubbed(const std::vector<std::string> &entries) {
  return RunInChild([&] {
    std::vector<char *> list;
    for (const std::string &entry : entries) list.push_back(const_cast<char *>(entry.c_str()));
    list.push_back(nullptr);
    environ = list.data();
    ScrubEnvironment();
    for (char **at = environ; *at != nullptr; at++) dprintf(STDOUT_FILENO, "%s\n", *at);
  });
}

TEST(ScrubEnvironment, RemovesWhatMakesAShellRunCode) {
  const std::vector<std::string> removed = {
      "f=() { :; }; reboot", "BASH_ENV=/x",         "ENV=",     "SHELLOPTS=xtrace",
      "BASH_FUNC_g%%=() {",  "SHELLOPTS=() { :; }", "ENV=twin", "ENV=twin",
  };
  const std::vector<std::string> kept = {
      "PATH=/bin", "MYENV=1",     "XBASH_ENV=1", "env=1",    "NOEQUALS",
      "ENVIRON=1", "a= () { :;}", "b=x() { :;}", "c=()  {",  "d=(){ :",
      "e=k=() {",  "EMPTY=",      "() {",        "BASH_ENV", "SHELLOPTS",
  };
  // Those to go stand side by side, most of them once: a walk that goes on after a removal without
  // beginning again would miss every other one.
  std::vector<std::string> all = kept;
  all.insert(all.begin() + 5, removed.begin(), removed.end());
  std::string expected;
  for (const std::string &entry : kept) expected += entry + "\n";
  const ChildResult result = Scrubbed(all);
  EXPECT_EQ(42, result.exitStatus);
  EXPECT_EQ(expected, result.output);
}

TEST(ScrubEnvironment, EndsTheProcessWhenAnEntryCannotBeRemoved) {
  // An empty name is one that unsetenv refuses.
  const ChildResult result = Scrubbed({"PATH=/bin", "=() { :; }"});
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_EQ("", result.output);
}

TEST(ScrubEnvironment, TakesAnEmptyEnvironment) {
  EXPECT_EQ(42, Scrubbed({}).exitStatus);
}

TEST(CheckRootOwned, WantsUserAndGroupZeroOfWhatALinkLeadsTo) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  const ScratchDir dir;
  const struct {
    const char *name;
    uid_t uid;
    gid_t gid;
    bool passes;
  } rows[] = {
      {"root", 0, 0, true},
      {"group", 0, 20, false},
      {"user", 501, 0, false},
      {"both", 501, 20, false},
  };
  for (const auto &row : rows) {
    const std::string file = dir.Write(row.name, "x");
    const std::string link = file + ".link";
    ASSERT_EQ(0, chown(file.c_str(), row.uid, row.gid));
    ASSERT_EQ(0, symlink(file.c_str(), link.c_str()));
    // The link's own owner is the opposite of what its target's asks for.
    ASSERT_EQ(0, lchown(link.c_str(), row.passes ? 501 : 0, row.passes ? 20 : 0));
    EXPECT_EQ(row.passes, CheckRootOwned(file.c_str()) == 0) << row.name;
    EXPECT_EQ(row.passes, CheckRootOwned(link.c_str()) == 0) << row.name;
  }
  EXPECT_NE(0, CheckRootOwned(dir.Path("missing").c_str()));
}

}  // namespace
