// staging_test.cpp -- what the opener stages and what it refuses; attacks by the owner of the bundle's
// folders between check and copy; failing system calls, all of them with LUMEN_ROUNDS.

#include <sys/inotify.h>
#include <sys/xattr.h>

#include <set>
#include <sstream>

#include "tests/support/trace.h"

namespace {

// ---- trees --------------------------------------------------------------------------------------

const std::string kStagedLibrary = kStaged + "/Contents/Library";
const std::string kKext = "/Contents/Library/kexts/zioplug.kext";

// What is at each path below a root, in words.  The group is mentioned only if it is root's: folders have
// the caller's, which may not write.
using Tree = std::map<std::string, std::string>;

std::string InWords(const fs::path &path) {
  static const std::map<mode_t, std::string> kinds = {
      {S_IFREG, "file"}, {S_IFDIR, "folder"}, {S_IFLNK, "link"}};
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) return strerrorname_np(errno);
  std::ostringstream words;
  const auto kind = kinds.find(info.st_mode & S_IFMT);
  words << (kind == kinds.end() ? "other" : kind->second) << " " << std::oct
        << (info.st_mode & ALLPERMS) << std::dec << " " << info.st_uid;
  if (info.st_gid == 0) words << ":0";
  if (S_ISLNK(info.st_mode)) words << " to " << fs::read_symlink(path).native();
  for (const char *list : {"system.posix_acl_access", "system.posix_acl_default"}) {
    if (lgetxattr(path.c_str(), list, nullptr, 0) > 0) words << " " << list;
  }
  return words.str();
}

Tree TreeAt(const std::string &root) {
  Tree tree = {{"", InWords(root)}};
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root)) {
    tree[entry.path().native().substr(root.size())] = InWords(entry.path());
  }
  return tree;
}

// What the staged bundle must be.
Tree StagedTree() {
  Tree tree = TreeAt(kTemplate);
  tree.erase("/Contents/Library/lumenClient-opener");
  for (auto &[path, words] : tree) {
    if (words.starts_with("folder")) words = "folder 755 0";
    if (words.starts_with("link")) words = "link 777 0 to en.lproj";
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

// After a failed start.  An old tree may still be there if removing it has failed.
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

// An access list that allows kUser everything, in the kernel's format: tags, permissions and ids.
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
  EXPECT_EQ(1U, Count(opener.Output(), " constructWorkingDir: " + kStaged +
                                           "/Contents/Library/kexts construction complete.\n"));
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
         std::to_string(error) + ".\n" + NotSigned("/productInfo");
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

// seal_test.cpp and codeseal_test test signatures themselves.
const Refusal kRefusals[] = {
    {"chgrp 20 \"$daemon\"", "", true},
    {"chown 12345 \"$daemon\"", "", true},
    {"rm \"$daemon\"; ln -s /Library/nothing \"$daemon\"", "", true},
    {"cp -a \"$daemon\" /Library/own; chown 12345 /Library/own; ln -sf /Library/own \"$daemon\"",
     "", true},
    // A user's link to a file of root's; links are never accepted as signed.
    {"mv \"$daemon\" /Library/root; ln -s /Library/root \"$daemon\"; chown -h 12345 \"$daemon\"",
     NotSigned("/" + kDaemonName, 3)},
    {"printf x | dd of=\"$daemon\" bs=1 seek=5000 conv=notrunc status=none",
     NotSigned("/" + kDaemonName)},
    {"sign services zephrin-usbarbitrator", NotSigned("/zephrin-usbarbitrator")},
    {"echo more >kexts/zioplug.kext/Contents/MacOS/more", NotSigned("/kexts/zioplug.kext")},
    {"rm kexts/zioplug.kext/Contents/Info.plist", NoIdentifier(4)},
    {"rm -r kexts/zioplug.kext", NoIdentifier(3)},
    {"mkdir -m 775 \"$root\"", NotRootsAlone(kInstallRoot)},
    {"mkdir \"$root\"; chown 12345 \"$root\"", NotRootsAlone(kInstallRoot)},
    {"mkdir /Library/real; ln -s /Library/real \"$root\"",
     Cannot("look at folder", kInstallRoot, ENOTDIR)},
    {"chmod 757 \"${root%/*}\"", NotRootsAlone(kInstallParent)},
    {"rmdir \"${root%/*}\"", Cannot("look at folder", kInstallParent, ENOENT)},
    {"chown 12345 services.sh", ""},
    {"mv services.sh /Library/own; chown 12345 /Library/own; ln -s /Library/own services.sh", ""},
    {"chgrp 20 zephrin-usbarbitrator", ""},
    {"rm services.sh", ""},
    {"rm productInfo", NotSigned("/productInfo", 3)},
    {"ln -sf /Library/device productInfo", NotSigned("/productInfo", 3)},
    {"ln -f /Library/device productInfo", NotSigned("/productInfo", 3)},
    {"ln -f /Library/fifo productInfo", NotSigned("/productInfo", 3)},
    {"rm -rf \"$root\"; echo a file >\"$root\"", Cannot("make folder", kInstallRoot, ENOTDIR)},
    {"rm \"$anchors\"", NoAnchors(ENOENT)},
    {"chmod 666 \"$anchors\"", NoAnchors(EPERM)},
    {": >\"$anchors\"", NoAnchors(0)},
};

TEST_F(Staging, RefusesWhatIsNotSignedByTheMaker) {
  Shell("makeDevice /Library/device; mkfifo /Library/fifo");
  const Watch forbidden({"/Library/device", "/Library/fifo"}, IN_OPEN);
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

// Makes files that only root may open and a FIFO, and gives the user everything that a user may own.
constexpr char kMakeOwned[] = R"sh(
  rm -rf /Library/secret* /Library/device
  mkdir -m 700 /Library/secrets
  echo only root may read this | tee /Library/secrets/x >/Library/secret
  chmod 600 /Library/secret
  makeDevice /Library/device
  mkdir ../own
  mkfifo ../own/fifo
  cp -a services.sh ../own
  chown -hR 12345:12345 . ../own
  chown root:root services.sh zephrin-usbarbitrator lumenClient-opener "$daemon"
  chmod u+s lumenClient-opener
)sh";

// An item that has been checked, and whose copy has just been created, still empty.
struct Item {
  std::string folder, name;
  const char *call;    // that creates the copy
  const char *failed;  // what is left of a failed copy, in words

  std::string Staged() const { return kStagedLibrary + folder + name; }
};
const Item kInfo = {"/", "productInfo", "openat", "file 600 0"};
const Item kKernel = {"/kexts/", "zioplug.kext", "mkdir", "folder 755 0"};

const std::string kNotCopied = "Cannot copy ";
const std::string kSecondCheck = "Failed to verify the code signature of " + kStaged;

struct Act {
  const Item &item;
  const char *commands;  // in the item's folder
  std::string record;    // "": the opener delivers
};

const Act kActs[] = {
    // The name that was checked leads to something else.
    {kInfo, "mv productInfo ../own; ln -s /Library/secret productInfo", ""},
    {kInfo, "mv productInfo ../own; ln -s /Library/device productInfo", ""},
    {kInfo, "mv -f ../own/fifo productInfo", ""},
    {kKernel, "mv zioplug.kext ../../own; ln -s /Library/secrets zioplug.kext", ""},
    {kKernel, "mv zioplug.kext ../../own; ln -s /Library zioplug.kext", ""},
    // The same item, with other content.
    {kInfo, "echo | dd of=productInfo conv=notrunc", kSecondCheck},
    {kInfo, "truncate -s 400M productInfo", kNotCopied},
    {kKernel, "cd zioplug.kext/Contents; echo | dd of=MacOS/zioplug conv=notrunc", kSecondCheck},
    {kKernel, "cd zioplug.kext/Contents; truncate -s 400M Info.plist", kNotCopied},
    {kKernel, "cd zioplug.kext; mkdir more; touch $(seq -f more/%g 1000)", kNotCopied},
    {kKernel, "mv -f ../../own/fifo zioplug.kext/Contents/Info.plist", kNotCopied},
    {kKernel, "ln -sf /Library/device zioplug.kext/Contents/Info.plist", kSecondCheck},
};

TEST_F(Staging, WhatWasCheckedIsWhatIsCopiedAndNoMore) {
  for (const auto &[item, commands, record] : kActs) {
    SCOPED_TRACE(commands);
    Reset();
    Shell(kMakeOwned);
    const Watch forbidden(
        {"/Library/secret", "/Library/secrets", "/Library/device", kBundle + "/Contents/own/fifo"},
        IN_OPEN);
    StoppedOpener opener(item.call, item.Staged());
    ASSERT_TRUE(opener.AwaitStop());
    EXPECT_EQ("folder 700 0", InWords(kStaged));
    ShellAsUser("cd ." + item.folder + "; " + commands);
    const Outcome outcome = opener.ContinueToEnd();
    EXPECT_FALSE(forbidden.Seen());
    if (record.empty()) {
      EXPECT_EQ(0, outcome.status) << outcome;
      ExpectStaged();
    } else {
      EXPECT_EQ(1, outcome.status);
      EXPECT_EQ(1U, Count(outcome.records, record)) << outcome;
      ExpectClosed();
      // Only its name is left.
      EXPECT_EQ(item.failed, InWords(item.Staged()));
      EXPECT_TRUE(fs::is_empty(item.Staged()));
    }
  }
}

// When its name is checked, the file is root's; when it is opened, it is the user's.
TEST_F(Staging, TheOwnerIsAskedOfTheOpenFile) {
  Shell(kMakeOwned);
  StoppedOpener opener("newfstatat", kBundleLibrary + "/services.sh");
  ASSERT_TRUE(opener.AwaitStop());
  ShellAsUser("mv -f ../own/services.sh services.sh");
  EXPECT_EQ(1, opener.ContinueToEnd().status);
  ExpectClosed();
  EXPECT_EQ("ENOENT", InWords(kStagedLibrary + "/services.sh"));
}

// ---- when something fails ------------------------------------------------------------------------

TEST_F(Staging, ASystemCallThatFailsLeavesNothingHalfDone) {
  Shell(R"(mkdir -p "$root/Services/Old/Tree")");
  ASSERT_EQ(kDelivered, OutcomeOf(Traced()));
  std::vector<Position> calls = Trace(ReadFile(kTracePath)).staging;
  // If these fail, a sanitizer or the C library ends the process by itself; and the C library would take an
  // error of brk for an address.
  static const std::set<std::string> kLeftOut = {"brk", "getrandom", "mmap", "mprotect", "munmap"};
  std::erase_if(calls, [](const Position &call) { return kLeftOut.contains(call.first); });
  ASSERT_LT(100U, calls.size());
  // A prime, since the ten checks make the same calls.
  const size_t stride = Rounds() > 10 ? 1 : 29;
  for (size_t i = 0; i < calls.size(); i += stride) {
    const std::string number = std::to_string(calls[i].second),
                      error = i % 2 == 0 ? "EIO" : "ENOSPC";
    SCOPED_TRACE(calls[i].first + " " + number + " " + error);
    StopServices();
    Shell(R"(mkdir -p "$root/Services/Old/Tree")");
    const int status = OutcomeWithFault(calls[i].first, number, error).status;
    if (status == 0) {
      ExpectStaged();
    } else {
      EXPECT_EQ(1, status);
      ExpectClosed(true);
      const std::string trace = ReadFile(kTracePath);
      const std::string end = trace.substr(trace.rfind("setresuid(-1, 65534, -1)"));
      EXPECT_FALSE(std::regex_search(end, std::regex(R"(setresuid\(-1, 0, -1\) += 0)"))) << end;
    }
    StopServices();
    ExpectStart();
  }
}

}  // namespace
