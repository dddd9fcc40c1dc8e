// staging_test.cpp -- what the opener puts where only root can write, and what it refuses; with
// somebody who owns the bundle's folders and exchanges what lies in them; with system calls that
// fail, and disks that are full.  LUMEN_ROUNDS makes the chances more, and the faults all there are.

#include <fcntl.h>
#include <grp.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <span>

#include "tests/support/product.h"
#include "tests/support/scratchDir.h"
#include "tests/support/trace.h"

namespace fs = std::filesystem;

namespace {

// ---- trees --------------------------------------------------------------------------------------

const std::string kKext = "/Contents/Library/kexts/zioplug.kext";

constexpr const char *kAccessLists[] = {"system.posix_acl_access", "system.posix_acl_default"};

// Paths below a root; what is there, in words.  The group is named only where it is root's: folders
// have the caller's, and it may not write.
using Tree = std::map<std::string, std::string>;

const Tree kStagedTree = {
    {"", "folder 755 0"},
    {"/Contents", "folder 755 0"},
    {"/Contents/Library", "folder 755 0"},
    {"/Contents/Library/Zephrin Lumen Client Services", "file 755 0:0"},
    {"/Contents/Library/kexts", "folder 755 0"},
    {kKext, "folder 755 0"},
    {kKext + "/Contents", "folder 755 0"},
    {kKext + "/Contents/Info.plist", "file 600 0"},
    {kKext + "/Contents/MacOS", "folder 755 0"},
    {kKext + "/Contents/MacOS/zioplug", "file 600 0"},
    {kKext + "/Contents/Resources", "folder 755 0"},
    {kKext + "/Contents/Resources/English.lproj", "link 0 to en.lproj"},
    {kKext + "/Contents/Resources/en.lproj", "folder 755 0"},
    {kKext + "/Contents/Resources/en.lproj/InfoPlist.strings", "file 600 0"},
    {kKext + "/Contents/_CodeSignature", "folder 755 0"},
    {kKext + "/Contents/_CodeSignature/CodeSeal", "file 600 0"},
    {"/Contents/Library/productInfo", "file 644 0:0"},
    {"/Contents/Library/services.sh", "file 755 0:0"},
    {"/Contents/Library/zephrin-usbarbitrator", "file 755 0:0"},
};

std::string InWords(const fs::path &path) {
  struct stat info;
  if (lstat(path.c_str(), &info) != 0) return strerrorname_np(errno);
  char mode[20];
  snprintf(mode, sizeof mode, " %o ", info.st_mode & ALLPERMS);
  const std::string owner = std::to_string(info.st_uid) + (info.st_gid == 0 ? ":0" : "");
  std::string lists;
  for (const char *name : kAccessLists) {
    if (lgetxattr(path.c_str(), name, nullptr, 0) > 0) lists += std::string(" ") + name;
  }
  if (S_ISLNK(info.st_mode)) return "link " + owner + " to " + fs::read_symlink(path).native();
  if (S_ISDIR(info.st_mode)) return "folder" + (mode + owner) + lists;
  return (S_ISREG(info.st_mode) ? "file" : "other") + (mode + owner) + lists;
}

Tree TreeAt(const std::string &root) {
  Tree tree = {{"", InWords(root)}};
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root)) {
    tree[entry.path().native().substr(root.size())] = InWords(entry.path());
  }
  return tree;
}

bool IsCopy(const std::string &path) {
  return ReadFile(kTemplate + path) == ReadFile(kStaged + path);
}

void ExpectStaged() {
  EXPECT_EQ(kStagedTree, TreeAt(kStaged));
  for (const auto &[path, words] : kStagedTree) {
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

Launch Hello() {
  static const Fd file = FileWith("hello");
  lseek(file.Get(), 0, SEEK_SET);
  return OpenerLaunch(file.Get());
}

void ExpectStart() {
  EXPECT_EQ(kDelivered, OutcomeOf(Hello()));
  EXPECT_EQ(1U, Services().size());
  ExpectStaged();
}

using Staging = ProductTest;

// ---- what is staged -----------------------------------------------------------------------------

// The user may do everything: an access list as the kernel takes it, of tags, permissions and ids.
constexpr uint32_t kList[] = {2, 0x7'0001, 0, 0x7'0002, kUser, 0x5'0004,
                              0, 0x7'0010, 0, 0x5'0020, 0};

void MakeOdd(const std::string &path, bool folder) {
  for (const char *name : std::span(kAccessLists, folder ? 2 : 1)) {
    ASSERT_EQ(0, setxattr(path.c_str(), name, kList, sizeof kList, 0)) << strerrorname_np(errno);
  }
  ASSERT_EQ(0, setxattr(path.c_str(), "user.odd", "odd", 3, 0));
  ASSERT_EQ(0, chmod(path.c_str(), folder ? 03777 : 06717));
}

TEST_F(Staging, TheTreeIsTheSameWhateverItsSourcesAre) {
  fs::create_directories(kStaged + "/Contents/Old");
  std::ofstream(kStaged + "/Contents/Old/daemon") << "old";
  ASSERT_EQ(0, symlink(kBundle.c_str(), (kStaged + "/Contents/Library").c_str()));
  const std::string oddest = kBundleLibrary + "/productInfo";
  ASSERT_EQ(0, lchown(oddest.c_str(), kUser, kUser));
  for (const auto &[path, words] : kStagedTree) {
    const std::string source = kBundle + path;
    if (!path.starts_with("/Contents/Library/") || words.starts_with("link")) continue;
    MakeOdd(source, words.starts_with("folder"));
  }
  Launch launch = Hello();
  const auto openArgument = launch.adjust;
  launch.adjust = [&] {
    openArgument();
    umask(077);
  };
  Process opener(launch);
  EXPECT_EQ(0, opener.Wait());
  const std::string kexts = kStaged + "/Contents/Library/kexts";
  EXPECT_EQ(1U,
            Count(opener.Output(), " constructWorkingDir: " + kexts + " construction complete.\n"))
      << opener.Output();
  ExpectStaged();
}

// ---- what is refused ----------------------------------------------------------------------------

const std::string kScript = kBundleLibrary + "/services.sh";
const std::string kDaemonName = fs::path(kBundleDaemon).filename();

std::string NotSigned(const std::string &path, int code = 7) {
  return "PrivilegedHelper: Failed to verify the code signature of " + path + " due to " +
         std::to_string(code);
}

std::string NoIdentifier(int code) {
  return "CoreFoundationUtils: Failed to get bundle identifier for " + kBundle + kKext +
         " due to (" + std::to_string(code) + ").\n";
}

struct Refusal {
  const char *name;
  void (*spoil)();
  std::string records;
};

const Refusal kRefusals[] = {
    {"another byte in the daemon",
     [] {
       std::fstream daemon(kBundleDaemon, std::ios::in | std::ios::out | std::ios::binary);
       daemon.seekp(5000);
       const int byte = daemon.get();
       daemon.seekp(5000);
       daemon.put(static_cast<char>(byte ^ 1));
     },
     NotSigned(kBundleDaemon)},
    {"a daemon under another name", [] { Sign(kBundleDaemon, "services"); },
     NotSigned(kBundleDaemon)},
    {"another maker", [] { Sign(kBundleDaemon, kDaemonName, "wrongName"); },
     NotSigned(kBundleDaemon)},
    {"an expired certificate", [] { Sign(kBundleDaemon, kDaemonName, "expired"); },
     NotSigned(kBundleDaemon)},
    {"a certificate for servers", [] { Sign(kBundleDaemon, kDaemonName, "wrongUse"); },
     NotSigned(kBundleDaemon)},
    {"a certificate of another authority", [] { Sign(kBundleDaemon, kDaemonName, "stranger"); },
     NotSigned(kBundleDaemon)},
    {"no seal", [] { InstallProgram("LUMEN_SERVICE", kBundleDaemon); }, NotSigned(kBundleDaemon)},
    {"a file more in the extension",
     [] { std::ofstream(kBundle + kKext + "/Contents/MacOS/more") << "more"; },
     NotSigned(kBundle + kKext)},
    {"an extension without Info.plist",
     [] { fs::remove(kBundle + kKext + "/Contents/Info.plist"); }, NoIdentifier(4)},
    {"no extension", [] { fs::remove_all(kBundle + kKext); }, NoIdentifier(3)},
    {"the user's script", [] { ASSERT_EQ(0, chown(kScript.c_str(), kUser, 0)); }, ""},
    {"no script", [] { fs::remove(kScript); }, ""},
    {"no productInfo", [] { fs::remove(kBundleLibrary + "/productInfo"); },
     NotSigned(kBundleLibrary + "/productInfo", 3)},
    {"a file for the install root",
     [] {
       fs::remove_all(kInstallRoot);
       std::ofstream(kInstallRoot) << "file";
     },
     ""},
    {"no anchors", [] { fs::remove(kAnchors); }, NotSigned(kBundleLibrary + "/productInfo")},
    {"anchors that everybody may write", [] { ASSERT_EQ(0, chmod(kAnchors.c_str(), 0666)); },
     NotSigned(kBundleLibrary + "/productInfo")},
};

TEST_F(Staging, WhatIsNotTheMakersIsNotStarted) {
  for (const Refusal &refusal : kRefusals) {
    SCOPED_TRACE(refusal.name);
    refusal.spoil();
    EXPECT_EQ((Outcome{1, refusal.records}), OutcomeOf(Hello()));
    ExpectClosed();
    InstallBundle();
    if (!fs::is_directory(kInstallRoot)) fs::remove(kInstallRoot);
    ExpectStart();
    StopServices();
  }
}

// ---- somebody who owns the folders --------------------------------------------------------------

const std::string kSecretText = "only root may read this";

// What the attackers have done and seen; shared with them.
struct Attack {
  std::atomic<bool> over;
  std::atomic<int> exchanges, attempts, read, written, secrets;
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
  cd "$0/Contents" && mkdir own && cd Library
  for victim; do
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
  for (Fd folder; !attack->over; attack->attempts++) {
    if (attack->attempts % 7 == 0) folder.Reset(open(kStaged.c_str(), O_PATH | O_DIRECTORY));
    for (const auto &[path, words] : kStagedTree) {
      const std::string name = "." + path;
      char text[24] = "";
      Fd file(openat(folder.Get(), name.c_str(), O_RDONLY | O_NONBLOCK));
      if (file) attack->read++;
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
  if (setgroups(0, nullptr) != 0 || setresgid(kUser, kUser, kUser) != 0 ||
      setresuid(kUser, kUser, kUser) != 0) {
    _exit(2);
  }
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
  Launch preparation = {.argv = {"/bin/sh", "-ec", kMakeFalseItems, kBundle}, .env = {"PATH=/bin"}};
  preparation.argv.insert(preparation.argv.end(), kVictims.begin(), kVictims.end());
  Process prepared(preparation);
  ASSERT_EQ(0, prepared.Wait()) << prepared.Output();
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
    const int status = OutcomeOf(Hello()).status;
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
  printf("%d starts of %d; %d exchanges, %d attempts, %d files read\n", started, rounds,
         attack->exchanges.load(), attack->attempts.load(), attack->read.load());
  EXPECT_LT(0, attack->exchanges);
  EXPECT_LT(0, attack->attempts);
  EXPECT_EQ(0, attack->written);
  EXPECT_EQ(0, attack->secrets);
  munmap(memory, sizeof(Attack));
  ExpectStart();
  fs::remove_all("/Library/secrets");
}

// ---- when something fails ------------------------------------------------------------------------

TEST_F(Staging, ASystemCallThatFailsLeavesNothingHalfDone) {
  ASSERT_EQ(0, access(kStrace.c_str(), X_OK)) << "strace is needed";
  fs::create_directories(kStaged + "/Old/Tree");
  ASSERT_EQ(0, Process(Traced({})).Wait());
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
    const int error = i % 2 == 0 ? EIO : ENOSPC;
    SCOPED_TRACE(Injection(calls[i], error));
    StopServices();
    fs::create_directories(kStaged + "/Old/Tree");
    const int status = OutcomeOf(Traced({"-e", Injection(calls[i], error)})).status;
    const std::string trace = ReadFile(kTracePath);
    EXPECT_NE(trace.npos, trace.find("(INJECTED)")) << "the fault did not come";
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

TEST_F(Staging, AFullDiskLeavesNothingHalfDone) {
  const std::string parent = fs::path(kInstallRoot).parent_path();
  const auto resize = [&](int kilobytes, unsigned long flags = MS_REMOUNT) {
    const std::string size = "mode=755,size=" + std::to_string(kilobytes) + "k";
    ASSERT_EQ(0, mount("small", parent.c_str(), "tmpfs", flags, size.c_str()));
  };
  resize(4, 0);
  int failures = 0;
  for (int kilobytes = 4; kilobytes < 1 << 20; kilobytes *= 2) {
    resize(kilobytes);
    const int status = OutcomeOf(Hello()).status;
    if (status == 0) break;
    EXPECT_EQ(1, status);
    ExpectClosed();
    failures++;
  }
  EXPECT_LT(3, failures);
  EXPECT_EQ(1U, Services().size());
  ExpectStaged();
  StopServices();
  EXPECT_EQ(0, umount2(parent.c_str(), MNT_DETACH));
}

TEST_F(Staging, ASecondOpenerWaitsForTheOneThatStages) {
  Process first(OpenerLaunch(FileWith("first").Get()));
  ASSERT_TRUE(Eventually([] { return fs::exists(kStaged + "/Contents/Library/kexts"); }));
  first.Signal(SIGSTOP);
  siginfo_t info;
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(first.Pid()), &info, WSTOPPED | WNOWAIT));
  ASSERT_EQ("folder 700 0", InWords(kStaged)) << "it was stopped too late";
  Process second(OpenerLaunch(FileWith("second").Get()));
  usleep(100'000);
  EXPECT_TRUE(second.Running());
  EXPECT_TRUE(Services().empty());
  first.Signal(SIGCONT);
  EXPECT_EQ(kDelivered, Finish(&first));
  EXPECT_EQ(kDelivered, Finish(&second));
  EXPECT_TRUE(ServiceRead("first"));
  EXPECT_TRUE(ServiceRead("second"));
  EXPECT_EQ(1U, Count(ServiceLog(), "Started: "));
}

}  // namespace
