// fileTree_test.cpp -- trees copied, moved, removed and added up, against cp, diff and find.

#include <limits.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <fstream>

#include "lib/public/file.h"
#include "lib/public/msg.h"
#include "tests/support/asRoot.h"
#include "tests/support/process.h"
#include "tests/support/sysFault.h"
#include "tests/support/test.h"

namespace {

// The ids of the pending messages, each after a blank, the last one first; none are left.
std::string Messages() {
  const MsgListOwner list(Msg_TakePending());
  std::string ids;
  for (const MsgList *m = list.get(); m != nullptr; m = m->next) ids += " " + std::string(m->id);
  return std::regex_replace(ids, std::regex("msg.File."), "");
}
bool HadMessages() {
  return !Messages().empty();
}

bool Shell(const std::string &command) {
  return system(command.c_str()) == 0;  // NOLINT(cert-env33-c): the paths are the test's own
}

bool Move(const std::string &from, const std::string &to) {
  return File_MoveTree(from.c_str(), to.c_str(), true, nullptr);
}

std::string Delete(const std::string &tree) {
  return OkOrErrno(File_DeleteDirectoryTree(tree.c_str()));
}

// What find knows of a tree, inodes and times included; that there is none, too.
std::string Snapshot(const std::string &tree) {
  if (!fs::exists(tree)) return "none";
  return OutputOf({"/usr/bin/find", tree, "-printf", "%p %y %m %i %s %T@ %l\\n"});
}

// A tree with so many entries of all kinds, under odd names.
void Grow(const std::string &top, int entries, std::mt19937 *random) {
  static constexpr const char *kNames[] = {"new\nline ", "größe 雪 ", "-%s'\"\\", "...", ""};
  static constexpr const char *kTargets[] = {".", "missing", "../..//a b", "../outside", "\n"};
  static constexpr size_t kSizes[] = {0, 1, 8191, 8192, 8193, 50'000};
  std::vector<fs::path> folders = {top};
  fs::create_directory(top);
  for (int i = 0; i < entries; i++) {
    std::string name = kNames[(*random)() % 5] + std::to_string(i);
    if ((*random)() % 6 == 0) name.resize(255, 'x');
    const fs::path path = folders[(*random)() % folders.size()] / name;
    const auto pick = (*random)() % 10;
    if (pick < 2) {
      fs::create_directory(path);
      folders.push_back(path);
    } else if (pick < 4) {
      fs::create_symlink(kTargets[(*random)() % 5], path);
    } else {
      std::string content(kSizes[(*random)() % 6], 0);
      for (char &c : content) c = static_cast<char>((*random)());
      std::ofstream(path) << content;
      chmod(path.c_str(), (*random)() % 2 == 0 ? 0400 : 0755);
    }
  }
}

TEST(FileTree, IsCopiedAsByCpWithoutMetadataAndRemovedWhole) {
  const ScratchDir dir;
  std::mt19937 random(3);
  const std::string from = dir.Path("from"), to = dir.Path("to"), outside = dir.Path("outside");
  Grow(outside, 20, &random);
  Grow(from, std::min(10'000, 300 * Rounds()), &random);
  const std::string before = Snapshot(from), beforeOutside = Snapshot(outside);
  fs::create_directory(to);
  const mode_t mask = umask(027);
  EXPECT_TRUE(File_CopyTree(from.c_str(), to.c_str(), false, false));
  umask(mask);
  EXPECT_FALSE(HadMessages());
  EXPECT_TRUE(Shell("cd '" + dir.Path() + "' && cp -R from cp && diff -r --no-dereference cp to"));
  EXPECT_TRUE(Shell("! find '" + to +
                    "' -mindepth 1 -type d ! -perm 750 -o -type f ! -perm 600 | grep ''"));
  ASSERT_EQ(0, mkfifo((to + "/fifo").c_str(), 0));
  EXPECT_TRUE(File_DeleteDirectoryContent(to.c_str()) && File_IsEmptyDirectory(to.c_str()));
  EXPECT_EQ(before, Snapshot(from));
  EXPECT_EQ("ok ok", Delete(from + "/") + " " + Delete(from));
  EXPECT_FALSE(fs::exists(from)) << Snapshot(from);
  EXPECT_EQ(beforeOutside, Snapshot(outside));
}

TEST(FileTree, GoesDeeperThanPathsAndDescriptors) {
  const ScratchDir dir;
  const std::string top = dir.Path("downwards"), copy = dir.Path("copy");
  fs::create_directory(copy);
  fs::current_path(dir.Path());
  for (int i = 0; i < PATH_MAX / 8; i++) {
    ASSERT_TRUE(mkdir("downwards", 0700) == 0 && chdir("downwards") == 0);
  }
  ASSERT_EQ(0, symlink("17 bytes, no more", "x"));
  std::ofstream("y") << "content";
  fs::current_path("/");
  InChild([&] {
    const rlimit few = {OpenDescriptors() + 7, OpenDescriptors() + 7};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
    EXPECT_TRUE(File_CopyTree(top.c_str(), copy.c_str(), false, false));
    EXPECT_EQ("ok", Delete(top));
    EXPECT_EQ(7, File_GetSizeEx(copy.c_str()));
    EXPECT_EQ("ok", Delete(copy));
  });
}

constexpr auto kCopy = [] { return File_CopyTree("f", "t", true, false); };
constexpr auto kFollow = [] { return File_CopyTree("f", "t", true, true); };
constexpr auto kCopyX = [] { return File_Copy("f/x", "t/x", true); };
constexpr auto kMove = [] { return File_MoveTree("f", "t", true, nullptr); };
constexpr auto kMoveDown = [] { return File_MoveTree("f", "f/x", true, nullptr); };
constexpr auto kMoveUp = [] { return File_MoveTree("f/x", "f", true, nullptr); };
constexpr auto kDelete = [] { return File_DeleteDirectoryTree("f"); };
constexpr auto kUnlink = [] {
  return File_DeleteIfPresent("no") == 0 && errno == 0 && File_Unlink("f/\xFF") == 0;
};
constexpr auto kSize = [] { return File_GetSizeEx("f/1") == 3 << 8; };
constexpr auto kBounded = [] {
  return File_CopyOpenTree(Fd(open("f", O_RDONLY)).Get(), "f", "t", {.bytes = 3, .entries = 4});
};
constexpr auto kToNull = [] {
  return File_Copy("f/x", nullptr, true) || File_Rename("f/x", nullptr, nullptr) ||
         File_CopyTree("f", nullptr, true, true) || File_MoveTree("f", nullptr, true, nullptr);
};

// The folders f and t are made anew for each row.
struct Row {
  const char *setUp;  // a shell command
  bool (*call)();
  const char *outcome;  // and the ids of the messages, without "msg.File."
  const char *check;    // a shell command that must succeed afterwards
  // At the nth of these calls, from the end of the guard against nesting if n is negative: first a
  // command, and then the errno, if it is not 0.
  const char *hooked = "none";
  int nth = 0;
  const char *command = "";
  int error = 0;
};
#define COPY_FAILED " CopyTree.copy.failure"
#define MOVE_FAILED " MoveTree.copyFailed"
#define CREATE_FAILED " CopyFromFdToName.create.failure"
#define READ_FAILED " CopyFromFdToFd.read.failure"
#define WRITE_FAILED " CopyFromFdToFd.write.failure"
constexpr Row kRows[] = {
    {"echo 1 >f/x; echo 22 >t/x; chmod 640 t/x", kCopy, "ok",
     "cmp f/x t/x; ls -l t | grep -q rw-r-"},
    // Up from what a link led to; a link to a file; one that leads back.
    {"mkdir -p f/d/e; >f/d/e/x; ln -s d f/l; ln -s d/e/x f/m", kFollow, "ok",
     "test -f t/l/e/x -a ! -L t/l -a -f t/m -a ! -L t/m -a -f t/d/e/x"},
    {"mkdir f/a; ln -s . f/a/l; >t/x", kFollow, "ELOOP" COPY_FAILED, "test ! -e t/a/l"},
    {"ln -s $(printf 't\\377') f/x", kCopy, "ok", "test $(readlink t/x) = $(readlink f/x)"},
    {"ln -s a f/x; >t/x", kCopy, "EEXIST CopyTree.symlink.failure", "test -f t/x"},
    // Nothing waits, and nothing is written elsewhere.
    {"mkfifo f/x; exec 3<>f/x; printf abc >&3; sleep 99 & echo $! >pid", kCopy, "ok",
     "kill $(cat pid) && test -f t/x && grep -q abc t/x"},
    {">f/x; ln -s ../out t/x", kCopy, "ELOOP" COPY_FAILED CREATE_FAILED, "test ! -e out"},
    {"mkdir f/x out; >f/x/y; ln -s ../out t/x", kCopy, "ELOOP" COPY_FAILED, "test ! -e out/y"},
    {"mkdir -p f/x s; >f/x/y", kCopy, "ok", "test -L f/x -a -L t/x", "openat", -1,
     "mv f/x y; ln -s ../s f/x"},
    {"mkdir -p f/x s; >f/x/y", kCopy, "ELOOP" COPY_FAILED, "test ! -e s/y", "openat", -2,
     "mv t/x y; ln -s ../s t/x"},
    {"mkdir -p f/x s; >f/x/y; >s/z", kDelete, "ENOTDIR", "test -e s/z -a -e x/y", "openat", 1,
     "mv f/x .; ln -s ../s f/x"},
    {"rmdir f; mkdir x; >x/y; ln -s x f", kDelete, "ENOTDIR", "test -d x -a ! -e x/y"},
    {"mkdir -p f/x/y; >f/x/y/z", kDelete, "ESTALE", "test -d t/x", "unlinkat", 1, "mv f/x t"},
    {"mkdir f/x; >t/x", kMove, "ENOTDIR" MOVE_FAILED COPY_FAILED, "test -d f/x"},
    // What is allowed, and a little more of each.
    {"mkdir f/d; printf abc >f/d/x; ln -s x f/d/y; >f/z", kBounded, "ok",
     "diff -r --no-dereference f t"},
    {"printf ab >f/x; printf cd >f/y", kBounded, "EFBIG" COPY_FAILED WRITE_FAILED,
     "test $(cat t/* | wc -c) = 2"},
    {"head -c 9999 /dev/zero >f/x", kBounded, "EFBIG" COPY_FAILED WRITE_FAILED,
     "test -e y -a -L t/x", "read", 1, "mv t/x y; ln -s ../y t/x"},
    {"mkdir f/d; touch f/d/1 f/d/2 f/d/3 f/d/4", kBounded, "EFBIG CopyTree.walk.failure",
     "test ! -e t/d"},
    {"for i in 1 2 3 4 5; do >f/$(printf \"\\\\37$i\"); done", kBounded,
     "EFBIG CopyTree.walk.failure", "true"},
    {"mkfifo f/x", kBounded, "EOPNOTSUPP" COPY_FAILED " Copy.open.failure", "test ! -e t/x"},
    {">f/x; echo old >t/x", kBounded, "EEXIST" COPY_FAILED CREATE_FAILED, "grep -q old t/x"},
    {"mkdir f/x; echo old >t/x", kCopyX, "EISDIR" READ_FAILED, "grep -q old t/x"},
    {"echo 1 >f/x; ln f/x t/x", kCopyX, "EEXIST" CREATE_FAILED, "grep -q 1 f/x"},
    // Other names of what is yet to be copied, or has been.
    {"echo 1 >f/x; echo 2 >f/y; ln f/x t/y; ln f/y t/x", kCopy, "EEXIST" COPY_FAILED CREATE_FAILED,
     "grep -q 1 f/x && grep -q 2 f/y"},
    {"echo 1 >f/x; echo 2 >f/y; ln -s ../f/x t/y; ln -s ../f/y t/x", kFollow,
     "EEXIST" COPY_FAILED CREATE_FAILED, "grep -q 1 f/x && grep -q 2 f/y"},
    {"mkdir f/a f/b; echo 1 >f/a/x; echo 2 >f/b/x; ln -s ../f/a t/b; ln -s ../f/b t/a", kFollow,
     "EINVAL" COPY_FAILED, "grep -q 1 f/a/x && grep -q 2 f/b/x"},
    // What is half written goes, wherever a link has led to.
    {"ln -s /proc/self/mem f/x; mkdir t/d; ln -s ../out t/d/y; ln -s d/y t/x; mkdir d; >d/y",
     kCopyX, "EIO" READ_FAILED, "test ! -e t/out -a ! -L t/x -a -L t/d/y -a -e d/y"},
    {"ln -s /proc/self/mem f/x", kCopyX, "EIO" READ_FAILED, "test -e t/x -a -e y", "read", 1,
     "mv t/x y; >t/x"},
    {"echo 1 >f/x; >t/y", kMove, "ok", "test ! -e f && grep -q 1 t/x"},
    {"rmdir t; echo 1 >f/x", kMove, "ok", "test ! -e f && grep -q 1 t/x"},
    {"rmdir t; >t", kMove, "ENOTDIR MoveTree.dest.notDirectory", "test -d f"},
    {"echo 1 >f/x; echo 2 >t/x", [] { return File_MoveTree("f", "t", false, nullptr); },
     "EEXIST" MOVE_FAILED COPY_FAILED CREATE_FAILED, "grep -q 1 f/x && grep -q 2 t/x"},
    {"echo 1 >f/y", kMoveDown, "EINVAL" MOVE_FAILED, "grep -q 1 f/y && test ! -e f/x"},
    {"mkdir f/x; echo 1 >f/x/y", kMoveUp, "ok", "grep -q 1 f/y && test ! -e f/x"},
    // It would be copied over what it lies in, or into itself.
    {"mkdir -p f/x/x; echo 1 >f/x/x/y", kMoveUp, "EINVAL" MOVE_FAILED COPY_FAILED,
     "test -e f/x/x/y"},
    {"mkdir -p f/d/e; rmdir t; ln -s f/d/e t", kCopy, "EINVAL" COPY_FAILED, "test ! -e f/d/e/d"},
    {">f/x", kToNull,
     "EFAULT MoveTree.statFailed CopyTree.dest.notDirectory" CREATE_FAILED CREATE_FAILED,
     "test -f f/x"},
    // The target of a link counts from here, and stays if it cannot be removed.
    {">f/x; ln -s x f/\xFF", kUnlink, "ok", "test -e f/x -a ! -L f/\xFF"},
    {">x; ln -s x f/\xFF", kUnlink, "ok", "test ! -e x -a ! -L f/\xFF"},
    {"ln -s t f/\xFF", kUnlink, "EISDIR", "test -L f/\xFF"},
    {">x; ln -s x f/x", [] { return File_UnlinkNoFollow("f/x") == 0; }, "ok", "test -e x"},
    // Closing fails, or renaming: then the copy stands in, if it can be made.
    {"echo 1 >f/x", kCopyX, "EIO CopyFromFdToName.close.failure", "test ! -e t/x", "close", 1, "",
     EIO},
    {"echo 1 >f/x", kCopyX, "EIO Copy.close.failure", "test -e f/x", "close", 2, "", EIO},
    {"echo 1 >f/x; ln -s x f/y", [] { return File_Rename("f/y", "t/x", nullptr) && errno == 0; },
     "ok", "test ! -e f/x -a ! -L f/y && grep -q 1 t/x", "rename", 1, "", EXDEV},
    {"rmdir t; mkdir f/x; >f/$(printf '\\377')", kMove,
     "ENOENT" MOVE_FAILED " CopyTree.stat.failure", "test -d f/x -a ! -e t", "rename", 1, "",
     EXDEV},
    {"rmdir t; truncate -s 10T f/x", kMove, "ENOSPC MoveTree.dst.insufficientSpace",
     "test -e f/x -a -d t", "rename", 1, "", EXDEV},
    {"rmdir t; truncate -s 10T x; ln -s ../x f/x", kMove, "ok", "test -L t/x -a ! -e f", "rename",
     1, "", EXDEV},
    // What would not end: as many ways as 2^40, and a FIFO.
    {"for i in $(seq 40); do mkdir f/$i; ln -s ../$((i+1)) f/$i/a; ln -s a f/$i/b; done;"
     "mkfifo f/9/p; printf 123 >f/9/f",
     kSize, "ok", "true"},
    // The same data through a second mount; and what is no half-written file.
    {"mkdir -p t/x/x m; echo 1 >t/x/x/y; mount --bind t m && rmdir f && ln -s m f",
     [] { return File_MoveTree("m/x", "t", true, nullptr); }, "EINVAL" MOVE_FAILED COPY_FAILED,
     "grep -q 1 t/x/x/y"},
    {"mkdir -p f/a f/b t/a t/b; echo 1 >f/a/x; echo 2 >f/b/x; mount --bind f/a t/b;"
     "mount --bind f/b t/a",
     kMove, "EINVAL" MOVE_FAILED COPY_FAILED, "grep -q 1 f/a/x && grep -q 2 f/b/x"},
    {"echo 1 >f/x; mknod t/x c 1 7 || (>t/x; mount --bind /dev/full t/x)", kCopyX,
     "ENOSPC" WRITE_FAILED, "test -c t/x"},
};

void RunRow(const Row &row) {
  const ScratchDir dir;
  fs::current_path(dir.Path());
  ASSERT_TRUE(Shell(std::string("mkdir f t; ") + row.setUp)) << row.setUp;
  const std::string path = dir.Path();  // of which each directory is opened by the guard
  const auto guard = static_cast<int>(std::count(path.begin(), path.end(), '/')) + 3;
  const SysFault hook(row.hooked, row.nth < 0 ? guard - row.nth : row.nth, row.error,
                      [&] { Shell(row.command); });
  std::string outcome;
  CaptureOutput([&] { outcome = OkOrErrno(row.call()); });
  EXPECT_EQ(row.outcome, outcome + Messages()) << row.setUp;
  EXPECT_TRUE(Shell(row.check)) << row.setUp << " / " << row.check;
  Shell("umount m t/a t/b t/x 2>/dev/null");
  fs::current_path("/");
}

TEST(FileTree, EveryCase) {
  RUN_AS_ROOT();
  InChild([] {
    ASSERT_EQ(0, unshare(CLONE_NEWNS));
    ASSERT_EQ(0, mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
    std::for_each(std::begin(kRows), std::end(kRows), RunRow);
  });
}

void MakeTree(const ScratchDir &dir) {
  for (const char *name : {"from", "from/sub", "to"}) fs::create_directory(dir.Path(name));
  dir.Write("from/big", std::string(20'000, 'b'));
  dir.Write("from/sub/small", "s");
  fs::create_symlink("sub", dir.Path("from/link"));
}

// Runs `operation` with its nth call failing: that call's name, empty when there are fewer, and what
// `operation` came to.
std::pair<std::string, std::string> FailNth(int n, const std::function<bool()> &operation) {
  const size_t before = OpenDescriptors();
  std::string outcome;
  SysFault fault("", n, EIO);
  CaptureOutput([&] { outcome = OkOrErrno(operation()); });
  fault.Disarm();
  EXPECT_EQ(before, OpenDescriptors()) << fault.Call();
  return {fault.Call(), outcome};
}

TEST(FileTree, NothingIsLostOrHiddenWhicheverCallFails) {
  for (const bool move : {false, true}) {
    std::string call = "none", outcome;
    for (int n = 1; !call.empty(); n++) {
      const ScratchDir dir;
      MakeTree(dir);
      const std::string from = dir.Path("from"), to = dir.Path("to");
      dir.Write("to/big", "");  // so that no move is a rename
      const std::string before = Snapshot(from);
      std::tie(call, outcome) = FailNth(n, [&] {
        return move ? Move(from, to) : File_CopyTree(from.c_str(), to.c_str(), true, false);
      });
      const bool ok = outcome == "ok";
      // Whatever fails, the files are in the one place or in the other, and nothing is half written.
      EXPECT_TRUE((move && ok) || before == Snapshot(from)) << call;
      EXPECT_EQ("s", ReadFile((ok ? to : from) + "/sub/small")) << call;
      const std::string big = ReadFile(to + "/big");
      EXPECT_TRUE(big.empty() || big == std::string(20'000, 'b')) << call;
      EXPECT_NE(ok && !(move && fs::exists(from)), HadMessages()) << call;
      // Closing what was only read may fail unseen.
      EXPECT_TRUE(move || !ok || call == "close" || call.empty()) << call;
    }
  }
}

TEST(DeleteTree, GoesOnAndTellsWhicheverCallFailsAndIsHelpedByOthers) {
  const ScratchDir dir;
  const std::string from = dir.Path("from");
  std::string call = "none", outcome;
  for (int n = 1; !call.empty(); n++) {
    MakeTree(dir);
    const SysFault other("", n, 0, [&] { Shell("rm -r '" + from + "'"); });
    EXPECT_EQ("ok", Delete(from)) << n;
    MakeTree(dir);
    std::tie(call, outcome) = FailNth(n, [&] { return File_DeleteDirectoryTree(from.c_str()); });
    // Closing what was only read may fail unseen; and whether the top is there, opening it tells.
    EXPECT_EQ(call.empty() || call == "close" || call == "stat" ? "ok" : "EIO", outcome) << call;
    EXPECT_TRUE(outcome != "ok" || !fs::exists(from)) << call;
    if (call == "unlinkat" || call == "fstatat") {
      EXPECT_FALSE(fs::exists(from + "/sub/small") && fs::exists(from + "/big")) << call;
    }
    fs::remove_all(from);
  }
}

}  // namespace
