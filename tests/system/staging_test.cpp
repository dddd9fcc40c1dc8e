// staging_test.cpp -- what the opener puts where only root can write, and what it refuses; with an
// owner of the bundle's folders who changes what lies in them, right between check and copy or at any
// moment; with system calls that fail.  LUMEN_ROUNDS makes the chances more, and the faults all there
// are.

#include <fcntl.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <regex>
#include <set>

#include "tests/support/product.h"
#include "tests/support/scratchDir.h"
#include "tests/support/trace.h"

namespace fs = std::filesystem;

namespace {

// ---- trees --------------------------------------------------------------------------------------

const std::string kStagedLibrary = kStaged + "/Contents/Library";
const std::string kKext = "/Contents/Library/kexts/zioplug.kext";

// Paths below a root; what is there, in words.  The group is named only where it is root's: folders
// have the caller's, and it may not write.
using Tree = std::map<std::string, std::string>;

std::string InWords(const fs::path &path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) return strerrorname_np(errno);
  char mode[20];
  snprintf(mode, sizeof mode, " %o ", info.st_mode & ALLPERMS);
  const std::string owner = std::to_string(info.st_uid) + (info.st_gid == 0 ? ":0" : "");
  std::string words = (S_ISREG(info.st_mode) ? "file" : "other") + (mode + owner);
  if (S_ISLNK(info.st_mode)) words = "link " + owner + " to " + fs::read_symlink(path).native();
  if (S_ISDIR(info.st_mode)) words = "folder" + (mode + owner);
  for (const char *list : {"system.posix_acl_access", "system.posix_acl_default"}) {
    if (lgetxattr(path.c_str(), list, nullptr, 0) > 0) words += std::string(" ") + list;
  }
  return words;
}

Tree TreeAt(const std::string &root) {
  Tree tree = {{"", InWords(root)}};
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root)) {
    tree[entry.path().native().substr(root.size())] = InWords(entry.path());
  }
  return tree;
}

// What becomes of the bundle.
Tree StagedTree() {
  Tree tree = TreeAt(kTemplate);
  tree.erase("/Contents/Library/lumenClient-opener");
  for (auto &[path, words] : tree) {
    if (words.starts_with("folder")) words = "folder 755 0";
    if (words.starts_with("link")) words = "link 0 to en.lproj";
    if (words.starts_with("file")) words = path.starts_with(kKext) ? "file 600 0" : "file 755 0:0";
  }
  tree["/Contents/Library/productInfo"] = "file 644 0:0";
  return tree;
}

bool IsCopy(const std::string &path) {
  return ReadFile(kTemplate + path) == ReadFile(kStaged + path);
}

void ExpectStaged() {
  const Tree tree = TreeAt(kStaged);
  EXPECT_EQ(StagedTree(), tree);
  for (const auto &[path, words] : tree) {
    EXPECT_TRUE(!words.starts_with("file") || IsCopy(path)) << path;
  }
}

// After a start that failed.  An older tree may still be there if it could not be removed.
void ExpectClosed(bool mayBeOld = false) {
  EXPECT_TRUE(Services().empty());
  if (!fs::is_directory(kStaged)) return;
  const Tree tree = TreeAt(kStaged);
  if (tree.at("") == "folder 700 0") return;
  EXPECT_TRUE(mayBeOld) << tree.at("");
  for (const auto &[path, words] : tree) EXPECT_TRUE(words.starts_with("folder") || IsCopy(path));
}

void ExpectStart() {
  EXPECT_EQ(kDelivered, OutcomeOf(OpenerLaunch(FileWith(""))));
  EXPECT_EQ(1U, Services().size());
  ExpectStaged();
}

using Staging = ProductTest;

// ---- what is staged -----------------------------------------------------------------------------

// The user may do everything: an access list as the kernel takes it, of tags, permissions and ids.
constexpr uint32_t kList[] = {2, 0x7'0001, 0, 0x7'0002, kUser, 0x5'0004,
                              0, 0x7'0010, 0, 0x5'0020, 0};

TEST_F(Staging, TheTreeIsTheSameWhateverItsSourcesAre) {
  Shell(R"(mkdir -p "$root/Services/Contents/Old"; ln -s "$app" "$root/Services/Contents/Library"
           chown 12345:12345 productInfo)");
  for (const auto &[path, words] : StagedTree()) {
    const std::string source = kBundle + path;
    if (!path.starts_with("/Contents/Library/") || words.starts_with("link")) continue;
    const bool folder = words.starts_with("folder");
    ASSERT_EQ(0, setxattr(source.c_str(), "system.posix_acl_access", kList, sizeof kList, 0));
    const char *const another = folder ? "system.posix_acl_default" : "user.odd";
    ASSERT_EQ(0, setxattr(source.c_str(), another, kList, sizeof kList, 0));
    ASSERT_EQ(0, chmod(source.c_str(), folder ? 03777 : 06717));
  }
  Process opener(OpenerLaunch(FileWith(""), [] { umask(077); }));
  EXPECT_EQ(0, opener.Wait());
  EXPECT_NE(std::string::npos,
            opener.Output().find(" constructWorkingDir: " + kStaged +
                                 "/Contents/Library/kexts construction complete.\n"))
      << opener.Output();
  ExpectStaged();
}

// ---- what is refused ----------------------------------------------------------------------------

struct Refusal {
  const char *spoil;  // shell commands
  std::string records;
  bool early = false;  // before any file is made
};

std::string NotSigned(const std::string &path, int code = 7,
                      const std::string &folder = kBundleLibrary) {
  return "PrivilegedHelper: Failed to verify the code signature of " + folder + path + " due to " +
         std::to_string(code);
}

std::string NoAnchors(int error) {
  return "PrivilegedHelper: The code signature of " + kBundleLibrary +
         "/productInfo could not be checked: there are no trusted anchors, errno " +
         std::to_string(error) + ".\n";
}

std::string NoIdentifier(int code) {
  return "CoreFoundationUtils: Failed to get bundle identifier for " + kBundle + kKext +
         " due to (" + std::to_string(code) + ").\n";
}

std::string NotRootsAlone(const std::string &folder) {
  return "Warning: constructWorkingDir: Folder " + folder + " is not root's alone.\n";
}

std::string Cannot(const std::string &what, const std::string &path, int error) {
  return "Warning: constructWorkingDir: Cannot " + what + " " + path + ", errno " +
         std::to_string(error) + ".\n";
}

const std::string kParent = fs::path(kInstallRoot).parent_path();

// How signatures are judged is tested in seal_test.cpp.
const Refusal kRefusals[] = {
    {"chgrp 20 \"$daemon\"", "", true},
    {"chown 12345 \"$daemon\"", "", true},
    {"rm \"$daemon\"; ln -s /Library/nothing \"$daemon\"", "", true},
    {"cp -a \"$daemon\" /Library/own; chown 12345 /Library/own; ln -sf /Library/own \"$daemon\"",
     "", true},
    // A link of the user's to a file of root's, which cannot carry a signature.
    {"mv \"$daemon\" /Library/root; ln -s /Library/root \"$daemon\"; chown -h 12345 \"$daemon\"",
     NotSigned("/" + kDaemonName, 3)},
    {"printf x | dd of=\"$daemon\" bs=1 seek=5000 conv=notrunc status=none",
     NotSigned("/" + kDaemonName)},
    {"sign services \"$daemon\"", NotSigned("/" + kDaemonName)},
    {"sign zephrin-usbarbitrator zephrin-usbarbitrator wrongName",
     NotSigned("/zephrin-usbarbitrator")},
    {"echo more >kexts/zioplug.kext/Contents/MacOS/more", NotSigned("/kexts/zioplug.kext")},
    {"rm kexts/zioplug.kext/Contents/Info.plist", NoIdentifier(4)},
    {"rm -r kexts/zioplug.kext", NoIdentifier(3)},
    {"mkdir -m 775 \"$root\"", NotRootsAlone(kInstallRoot)},
    {"mkdir \"$root\"; chown 12345 \"$root\"", NotRootsAlone(kInstallRoot)},
    {"mkdir /Library/real; ln -s /Library/real \"$root\"",
     Cannot("look at folder", kInstallRoot, ENOTDIR)},
    {"chmod 757 \"${root%/*}\"", NotRootsAlone(kParent)},
    {"rmdir \"${root%/*}\"", Cannot("look at folder", kParent, ENOENT)},
    {"chown 12345 services.sh", ""},
    {"mv services.sh /Library/own; chown 12345 /Library/own; ln -s /Library/own services.sh", ""},
    {"chgrp 20 zephrin-usbarbitrator", ""},
    {"rm services.sh", ""},
    {"rm productInfo", NotSigned("/productInfo", 3)},
    {"ln -sf /Library/device productInfo", NotSigned("/productInfo", 3)},
    {"ln -f /Library/device productInfo", NotSigned("/productInfo", 3)},
    {"ln -f /Library/fifo productInfo", NotSigned("/productInfo", 3)},
    {"rm -rf \"$root\"; echo a file >\"$root\"", Cannot("make folder", kInstallRoot, ENOTDIR)},
    {"rm \"$anchors\"", NoAnchors(ENOENT) + NotSigned("/productInfo")},
    {"chmod 666 \"$anchors\"", NoAnchors(EPERM) + NotSigned("/productInfo")},
};

TEST_F(Staging, WhatIsNotTheMakersIsNotStarted) {
  Shell("makeDevice /Library/device; mkfifo /Library/fifo");
  Watch forbidden;
  forbidden.Add("/Library/device", IN_OPEN);
  forbidden.Add("/Library/fifo", IN_OPEN);
  for (const Refusal &refusal : kRefusals) {
    SCOPED_TRACE(refusal.spoil);
    Reset();
    Shell(refusal.spoil);
    EXPECT_EQ((Outcome{1, refusal.records}), OutcomeOf(OpenerLaunch(FileWith(""))));
    EXPECT_EQ(!refusal.early, fs::exists(kLockPath));
    ExpectClosed();
  }
  EXPECT_FALSE(forbidden.Seen());
  Reset();
  ExpectStart();
}

TEST_F(Staging, TellsOfACopyThatCouldNotBeEmptied) {
  const std::string copy = kStagedLibrary + "/productInfo";
  Process opener(Traced({"-P", copy, "-e", "inject=fchown,unlink:error=EIO"}));
  EXPECT_EQ((Outcome{1, Cannot("copy", kBundleLibrary + "/productInfo", EIO) +
                            Cannot("empty", copy, EIO)}),
            Finish(&opener));
  ExpectClosed();
}

// ---- somebody who owns the folders --------------------------------------------------------------

// What only root may open, a FIFO, and everything given to the user that may be.
constexpr char kMakeOwned[] = R"sh(
  rm -rf /Library/secret* /Library/device
  mkdir -m 700 /Library/secrets
  echo only root may read this | tee /Library/secrets/x >/Library/secret
  chmod 600 /Library/secret
  makeDevice /Library/device
  mkdir -p ../own/folder
  mkfifo ../own/fifo
  ln -s /Library/secret ../own/toSecret
  ln -s /Library/secrets ../own/toSecrets
  chown -hR 12345:12345 . ../own
  chown root:root services.sh zephrin-usbarbitrator lumenClient-opener "$daemon"
  chmod u+s lumenClient-opener
)sh";

// The opener, stopped while it checks the large file `large`; then `commands` are run, the check
// being over, but nothing copied yet.  Nothing when it was stopped too late.
std::optional<Outcome> OutcomeWithAct(const std::string &large, const std::string &commands) {
  Watch reading;
  reading.Add(kBundleLibrary + large, IN_ACCESS);
  Process opener(OpenerLaunch(FileWith("")));
  EXPECT_TRUE(Eventually([&] { return reading.Seen(); }));
  opener.Signal(SIGSTOP);
  EXPECT_TRUE(Eventually([&] {
    const auto checkers = ChildrenOf(opener.Pid());
    return ChildrenOf(getpid())[opener.Pid()] == 'T' &&
           std::ranges::all_of(checkers, [](const auto &child) { return child.second != 'R'; });
  }));
  EXPECT_EQ("folder 700 0", InWords(kStaged));
  const bool early = !fs::exists(kStagedLibrary + large);
  if (early) ShellAsUser(commands);
  opener.Signal(SIGCONT);
  const Outcome outcome = Finish(&opener);
  return early ? std::optional(outcome) : std::nullopt;
}

struct Item {
  const char *path;
  const char *identifier;
  const char *large;              // a file in it
  const char *complete, *failed;  // its copy, in words
};
constexpr Item kInfo = {"/productInfo", "productInfo", "/productInfo", "file 644 0:0",
                        "file 600 0"};
constexpr Item kKernel = {"/kexts/zioplug.kext", "com.zephrin.kext.zioplug",
                          "/kexts/zioplug.kext/Contents/MacOS/zioplug", "folder 755 0",
                          "folder 755 0"};

enum class Then { kStarts, kSecondCheck, kRefuses };

struct Act {
  const Item &item;
  const char *commands;  // in the item's folder
  Then then;
};

const Act kActs[] = {
    // By the name that was checked lies something else.
    {kInfo, "mv productInfo ../own; ln -s /Library/secret productInfo", Then::kStarts},
    {kInfo, "mv productInfo ../own; ln -s /Library/device productInfo", Then::kStarts},
    {kInfo, "mv -f ../own/fifo productInfo", Then::kStarts},
    {kKernel, "mv zioplug.kext ../../own; ln -s /Library/secrets zioplug.kext", Then::kStarts},
    {kKernel, "mv zioplug.kext ../../own; ln -s /Library zioplug.kext", Then::kStarts},
    // It is still the same, but has other content.
    {kInfo, "echo | dd of=productInfo conv=notrunc", Then::kSecondCheck},
    {kInfo, "truncate -s 400M productInfo", Then::kRefuses},
    {kKernel, "cd zioplug.kext/Contents; echo | dd of=MacOS/zioplug conv=notrunc",
     Then::kSecondCheck},
    {kKernel, "cd zioplug.kext/Contents; truncate -s 400M Info.plist", Then::kRefuses},
    {kKernel, "cd zioplug.kext; mkdir more; touch $(seq -f more/%g 1000)", Then::kRefuses},
    {kKernel, "mv -f ../../own/fifo zioplug.kext/Contents/Info.plist", Then::kRefuses},
    {kKernel, "ln -sf /Library/device zioplug.kext/Contents/Info.plist", Then::kSecondCheck},
};

std::optional<Outcome> TryAct(const Act &act) {
  ProductTest::Reset();
  const std::string path = std::string(".") + act.item.path;
  Shell(std::string("truncate -s 64M .") + act.item.large + "; sign " + act.item.identifier + " " +
        path + kMakeOwned);
  Watch forbidden;
  for (const std::string secret : {"/secret", "/secrets", "/device"})
    forbidden.Add("/Library" + secret, IN_OPEN);
  forbidden.Add(kBundle + "/Contents/own/fifo", IN_OPEN);
  const std::optional<Outcome> outcome = OutcomeWithAct(
      act.item.large, "cd " + fs::path(path).parent_path().native() + "; " + act.commands);
  EXPECT_FALSE(forbidden.Seen());
  return outcome;
}

TEST_F(Staging, WhatWasCheckedIsWhatIsCopiedAndNoMore) {
  for (const Act &act : kActs) {
    SCOPED_TRACE(act.commands);
    std::optional<Outcome> outcome;
    for (int i = 0; i < 20 && !outcome; i++) outcome = TryAct(act);
    ASSERT_TRUE(outcome) << "never stopped during its check";
    const std::string staged = kStagedLibrary + act.item.path;
    if (act.then == Then::kStarts) {
      EXPECT_EQ(kDelivered, *outcome);
      EXPECT_EQ(uintmax_t{64} << 20, fs::file_size(kStagedLibrary + act.item.large));
      EXPECT_EQ(act.item.complete, InWords(staged));
    } else {
      EXPECT_EQ(1, outcome->status);
      EXPECT_TRUE(act.then == Then::kRefuses ||
                  outcome->records == NotSigned(act.item.path, 7, kStagedLibrary))
          << *outcome;
      ExpectClosed();
      // Nothing but its name.
      EXPECT_EQ(act.item.failed, InWords(staged));
      EXPECT_TRUE(fs::is_empty(staged));
    }
  }
}

// A file of root's when its name is asked, and of the user's when it is opened.
TEST_F(Staging, TheOwnerIsAskedOfTheOpenFile) {
  Shell(kMakeOwned + std::string("cp -a services.sh ../own; chown 12345 ../own/services.sh"));
  Process tracer(Traced(
      {"-P", kBundleLibrary + "/services.sh", "-e", "inject=newfstatat:signal=SIGSTOP:when=1"}));
  EXPECT_TRUE(Eventually([] { return Count(ReadFile(kTracePath), "stopped by SIGSTOP") > 0; }));
  ShellAsUser("mv -f ../own/services.sh services.sh");
  for (const auto &[opener, state] : ChildrenOf(tracer.Pid())) kill(opener, SIGCONT);
  EXPECT_EQ((Outcome{1, ""}), Finish(&tracer));
  ExpectClosed();
}

// Two names change places for a moment.
constexpr char kSwap[] = R"sh(
  cd '/Applications/Zephrin Lumen Client.app/Contents/Library'
  names=(productInfo zephrin-usbarbitrator Zephrin* kexts kexts/zioplug.kext ../own/folder
         ../own/toSecret ../own/toSecrets ../own/fifo)
  while sleep 0.0$((RANDOM % 10)); do
    one=${names[RANDOM % 5]} other=${names[RANDOM % 9]}
    mv -T "$one" ../own/held &&
      { mv -T "$other" "$one" && sleep 0.00$((RANDOM % 5)) && mv -T "$one" "$other" && echo swapped
        mv -T ../own/held "$one"; }
  done 2>/dev/null
)sh";

// What nobody has a reason to change.
Tree Witnesses() {
  Tree tree = {{"the secret", ReadFile("/Library/secret")}};
  for (const std::string place : {"/Library", "/etc/zephrin", "/run/bundle", "/run/authority"}) {
    for (const auto &[path, words] : TreeAt(place)) tree[place + path] = words;
  }
  std::erase_if(tree, [](const auto &row) { return row.first.starts_with(kStaged); });
  return tree;
}

TEST_F(Staging, WhoeverOwnsTheFoldersGetsNothingIn) {
  Shell(kMakeOwned);
  ExpectStart();
  StopServices();
  const Tree before = Witnesses();
  const Process swap({{"/bin/bash", "-c", kSwap}, kUser, {"PATH=/usr/bin:/bin"}});
  const int rounds = 6 * Rounds();
  int started = 0;
  for (int round = 0; round < rounds; round++) {
    const int status = OutcomeOf(OpenerLaunch(FileWith(""))).status;
    if (status == 0) {
      started++;
      EXPECT_EQ(1U, Services().size());
      ExpectStaged();
      StopServices();
    } else {
      // Of the folder's owner the opener may know before it stages.
      ExpectClosed(true);
    }
    EXPECT_EQ(before, Witnesses());
  }
  printf("%d starts of %d; %zu swaps\n", started, rounds, Count(swap.Output(), "swapped\n"));
  EXPECT_LT(0U, Count(swap.Output(), "swapped\n"));
  EXPECT_TRUE(swap.Running());
}

// ---- when something fails ------------------------------------------------------------------------

TEST_F(Staging, ASystemCallThatFailsLeavesNothingHalfDone) {
  Shell(R"(mkdir -p "$root/Services/Old/Tree")");
  ASSERT_EQ(kDelivered, OutcomeOf(Traced()));
  std::vector<Position> calls = Trace(ReadFile(kTracePath)).staging;
  // Without memory a sanitizer ends the process in its own way, without entropy the C library, to
  // which brk has no errors: it would take one for an address.
  static const std::set<std::string> kLeftOut = {"brk", "getrandom", "mmap", "mprotect", "munmap"};
  std::erase_if(calls, [](const Position &call) { return kLeftOut.contains(call.first); });
  ASSERT_LT(100U, calls.size());
  // A prime: the calls of the ten checks are alike.
  const size_t stride = Rounds() > 10 ? 1 : 29;
  int failures = 0;
  for (size_t i = 0; i < calls.size(); i += stride) {
    const std::string number = std::to_string(calls[i].second),
                      error = i % 2 == 0 ? "EIO" : "ENOSPC";
    SCOPED_TRACE(calls[i].first + " " + number + " " + error);
    StopServices();
    Shell(R"(mkdir -p "$root/Services/Old/Tree")");
    std::string trace;
    const int status = OutcomeWithFault(calls[i].first, number, error, &trace).status;
    if (status == 0) {
      ExpectStaged();
    } else {
      failures++;
      EXPECT_EQ(1, status);
      ExpectClosed(true);
      const std::string end = trace.substr(trace.rfind("setresuid(-1, 65534, -1)"));
      EXPECT_FALSE(std::regex_search(end, std::regex(R"(setresuid\(-1, 0, -1\) += 0)"))) << end;
    }
    StopServices();
    ExpectStart();
  }
  printf("%d of %zu calls failed the start\n", failures, (calls.size() + stride - 1) / stride);
}

}  // namespace
