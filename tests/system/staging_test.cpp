// staging_test.cpp -- what the opener puts where only root can write, and what it refuses; with
// somebody who owns the bundle's folders and exchanges what lies in them; with system calls that
// fail.  LUMEN_ROUNDS makes the chances more, and the faults all there are.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <regex>
#include <set>

#include "tests/support/product.h"
#include "tests/support/scratchDir.h"
#include "tests/support/trace.h"

namespace fs = std::filesystem;

namespace {

// ---- trees --------------------------------------------------------------------------------------

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

std::string NotSigned(const std::string &path, int code = 7) {
  return "PrivilegedHelper: Failed to verify the code signature of " + kBundleLibrary + path +
         " due to " + std::to_string(code);
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
    {"chown 12345 services.sh", ""},
    {"chgrp 20 zephrin-usbarbitrator", ""},
    {"rm services.sh", ""},
    {"rm productInfo", NotSigned("/productInfo", 3)},
    {"rm -rf \"$root\"; echo a file >\"$root\"", ""},
    {"rm \"$anchors\"", NoAnchors(ENOENT) + NotSigned("/productInfo")},
    {"chmod 666 \"$anchors\"", NoAnchors(EPERM) + NotSigned("/productInfo")},
};

TEST_F(Staging, WhatIsNotTheMakersIsNotStarted) {
  for (const Refusal &refusal : kRefusals) {
    SCOPED_TRACE(refusal.spoil);
    Reset();
    Shell(refusal.spoil);
    EXPECT_EQ((Outcome{1, refusal.records}), OutcomeOf(OpenerLaunch(FileWith(""))));
    EXPECT_EQ(!refusal.early, fs::exists(kLockPath));
    ExpectClosed();
  }
  Reset();
  ExpectStart();
}

// ---- somebody who owns the folders --------------------------------------------------------------

const std::string kSecretText = "only root may read this";

// What the attackers have done and seen; shared with them.
struct Attack {
  std::atomic<bool> over;
  std::atomic<int> exchanges, attempts, written, secrets;
};

// The items that are exchanged, and what for: false items of the user's, in the same file system.
const std::vector<std::string> kVictims = {"productInfo", "zephrin-usbarbitrator", kDaemonName,
                                           "kexts/zioplug.kext", "kexts"};
const char *const kFalse[] = {"folder", "linkToFile", "linkToFolder",
                              "fifo",   "changed",    "changing"};

constexpr char kMakeFalseItems[] = R"sh(
  mkdir -m 700 /Library/secrets
  echo only root may read this | tee /Library/secrets/x >/Library/secret
  chmod 600 /Library/secret
  mkdir ../own
  for victim in productInfo zephrin-usbarbitrator "$daemon" kexts/zioplug.kext kexts; do
    false=../own/${victim#*/}
    mkdir -p "$false/folder"
    ln -s /Library/secret "$false/linkToFile"
    ln -s /Library/secrets "$false/linkToFolder"
    mkfifo "$false/fifo" "$false/folder/fifo"
    cp -a "$victim" "$false/changed"
    cp -a "$victim" "$false/changing"
    if test -d "$victim"; then cp -d "$false"/link* "$false/changed/"; else echo >>"$false/changed"; fi
  done
  chown -hR 12345:12345 ../own
  chown 12345 . kexts kexts/zioplug.kext
)sh";

// A file whose content is the right one only now and then, and at the end.
void Flicker(const std::string &path, unsigned times) {
  const Fd file(open(path.c_str(), O_RDWR | O_NONBLOCK));
  char byte = 0;
  if (!file || pread(file.Get(), &byte, 1, 0) != 1) return;
  for (unsigned i = 0; i < 2 * times; i++) {
    byte = static_cast<char>(byte ^ 1);
    if (pwrite(file.Get(), &byte, 1, 0) != 1) return;
    usleep(20);
  }
}

void Swap(Attack *attack) {
  std::mt19937 random(static_cast<unsigned>(getpid()));
  while (!attack->over) {
    const fs::path victim = kVictims[random() % kVictims.size()];
    const std::string name = kFalse[random() % std::size(kFalse)];
    const std::string in = kBundleLibrary + "/" + victim.native();
    const std::string out = kBundle + "/Contents/own/" + victim.filename().native() + "/" + name;
    if (renameat2(AT_FDCWD, in.c_str(), AT_FDCWD, out.c_str(), RENAME_EXCHANGE) != 0) _exit(1);
    if (name == "changing") Flicker(in, static_cast<unsigned>(random() % 50));
    usleep(static_cast<useconds_t>(random() % 5'000));
    if (renameat2(AT_FDCWD, in.c_str(), AT_FDCWD, out.c_str(), RENAME_EXCHANGE) != 0) _exit(1);
    attack->exchanges++;
    usleep(static_cast<useconds_t>(random() % 100'000));
  }
}

// Also from a folder that was opened earlier.
void Pry(Attack *attack) {
  const Tree tree = StagedTree();
  for (Fd folder; !attack->over; attack->attempts++) {
    if (attack->attempts % 7 == 0) folder.Reset(open(kStaged.c_str(), O_PATH | O_DIRECTORY));
    for (const auto &[path, words] : tree) {
      const std::string name = "." + path;
      char text[24] = "";
      Fd file(openat(folder.Get(), name.c_str(), O_RDONLY | O_NONBLOCK));
      if (pread(file.Get(), text, sizeof text - 1, 0) > 0 && kSecretText.starts_with(text))
        attack->secrets++;
      file.Reset(open((kStaged + path).c_str(), O_RDWR | O_NONBLOCK));
      if (file) attack->written++;
      file.Reset(openat(folder.Get(), (name + "/x").c_str(), O_WRONLY | O_CREAT, 0666));
      if (file) attack->written++;
    }
  }
}

pid_t ForkAsUser(void (*act)(Attack *), Attack *attack) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  BecomeUser(kUser);
  act(attack);
  _exit(0);
}

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
  Shell(kMakeFalseItems);
  ExpectStart();
  StopServices();
  const Tree before = Witnesses();
  void *const memory =
      mmap(nullptr, sizeof(Attack), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, memory);
  auto *const attack = new (memory) Attack();
  const pid_t attackers[] = {ForkAsUser(Swap, attack), ForkAsUser(Pry, attack)};
  const int rounds = 12 * Rounds();
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
  attack->over = true;
  for (const pid_t pid : attackers) {
    int status = -1;
    waitpid(pid, &status, 0);
    EXPECT_EQ(0, status);
  }
  printf("%d starts of %d; %d exchanges, %d attempts\n", started, rounds, attack->exchanges.load(),
         attack->attempts.load());
  EXPECT_LT(0, attack->exchanges);
  EXPECT_LT(0, attack->attempts);
  EXPECT_EQ(0, attack->written);
  EXPECT_EQ(0, attack->secrets);
  ExpectStart();
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
