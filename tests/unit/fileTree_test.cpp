// fileTree_test.cpp -- trees copied, moved, removed and added up, against cp, diff and find.

#include <limits.h>
#include <sys/resource.h>

#include <fstream>

#include "lib/public/file.h"
#include "lib/public/msg.h"
#include "tests/support/process.h"
#include "tests/support/sysFault.h"
#include "tests/support/test.h"

namespace {

// Whether there were pending messages; none are left.
bool HadMessages() {
  MsgList *const list = Msg_TakePending();
  MsgList_Free(list);
  return list != nullptr;
}

bool Shell(const std::string &command) {
  return system(command.c_str()) == 0;  // NOLINT(cert-env33-c): the paths are the test's own
}

std::string Delete(const std::string &tree) {
  return OkOrErrno(File_DeleteDirectoryTree(tree.c_str()));
}

// What find knows of a tree, inodes and times included; that there is none, too.
std::string Snapshot(const std::string &tree) {
  if (!fs::exists(tree)) return "none";
  return OutputOf({"/usr/bin/find", tree, "-printf", "%p %y %m %i %s %T@ %l\\n"});
}

// ---- random trees ----------------------------------------------------------------------------

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
  // At the top, a link is followed.
  fs::create_directory_symlink(outside, from);
  EXPECT_EQ("ENOTDIR", Delete(from));
  EXPECT_TRUE(File_IsEmptyDirectory(outside.c_str()));
}

TEST(DeleteTree, GoesDeeperThanPathsAndDescriptors) {
  const ScratchDir dir;
  fs::current_path(dir.Path());
  for (int i = 0; i < PATH_MAX / 8; i++) {
    ASSERT_TRUE(mkdir("downwards", 0700) == 0 && chdir("downwards") == 0);
  }
  fs::current_path("/");
  InChild([&] {
    const rlimit few = {OpenDescriptors() + 3, OpenDescriptors() + 3};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
    EXPECT_EQ("ok", Delete(dir.Path("downwards")));
  });
}

TEST(DeleteTree, IsNotLedElsewhereByWhoChangesTheTree) {
  const ScratchDir dir;
  const std::string top = dir.Path("top"), outside = dir.Path("outside");
  for (const char *name : {"top/d", "top/e/f/g", "outside"}) fs::create_directories(dir.Path(name));
  for (const char *name : {"top/d/x", "top/e/f/g/x", "outside/x"}) dir.Write(name, "");
  CaptureOutput([&] {
    const SysFault swap("openat", 1, 0, [&] {
      for (const std::string name : {"/d", "/e"}) {
        fs::rename(top + name, dir.Path() + name);
        fs::create_directory_symlink(outside, top + name);
      }
    });
    EXPECT_EQ("ENOTDIR", Delete(top));
  });
  EXPECT_TRUE(fs::exists(outside + "/x") && fs::exists(dir.Path("d/x")) &&
              fs::exists(dir.Path("e/f/g/x")));
  // Moved while it is emptied: the way up from there leads elsewhere.
  const SysFault move("unlinkat", 1, 0, [&] { fs::rename(dir.Path("e/f"), outside + "/f"); });
  EXPECT_EQ("ESTALE", Delete(dir.Path("e")));
  EXPECT_TRUE(fs::exists(outside + "/x") && fs::exists(outside + "/f"));
}

// Right before the directory "x" is opened on either side, a link takes its place.
TEST(CopyTree, IsNotLedElsewhereByChangesToEitherTree) {
  for (const auto &[later, tree, outcome] : {std::tuple{1, "from", "ok"}, {2, "to", "ELOOP"}}) {
    const ScratchDir dir;
    const std::string in = "cd '" + dir.Path() + "' && ", to = dir.Path("to");
    ASSERT_TRUE(Shell(in + "mkdir -p from/x to secret && >secret/y && >from/x/z"));
    // Before it, the directories above the destination are opened.
    const auto above = std::count(to.begin(), to.end(), '/') + 2;
    const SysFault swap("openat", static_cast<int>(above) + later, 0, [&, where = tree] {
      Shell(in + "cd " + where + " && mv x ../away && ln -s ../secret x");
    });
    CaptureOutput([&, wanted = outcome] {
      EXPECT_EQ(wanted,
                OkOrErrno(File_CopyTree(dir.Path("from").c_str(), to.c_str(), true, false)));
    });
    EXPECT_TRUE(swap.Fired() && fs::is_symlink(to + "/x") && !fs::exists(dir.Path("secret/z")));
    Msg_Reset();
  }
}

// ---- one case after the other ----------------------------------------------------------------

bool CopyTree(const std::string &from, const std::string &to) {
  return File_CopyTree(from.c_str(), to.c_str(), true, false);
}
bool CopyFollowing(const std::string &from, const std::string &to) {
  return File_CopyTree(from.c_str(), to.c_str(), true, true);
}
bool CopyBounded(const std::string &from, const std::string &to) {
  const Fd dir(open(from.c_str(), O_RDONLY | O_DIRECTORY));
  return File_CopyOpenTree(dir.Get(), from.c_str(), to.c_str(), {.bytes = 3, .entries = 4});
}
bool CopyX(const std::string &from, const std::string &to) {
  return File_Copy((from + "/x").c_str(), (to + "/x").c_str(), true);
}
bool CopyNewX(const std::string &from, const std::string &to) {
  return File_Copy((from + "/x").c_str(), (to + "/x").c_str(), false);
}
bool MoveTree(const std::string &from, const std::string &to) {
  return File_MoveTree(from.c_str(), to.c_str(), true, nullptr);
}
bool MoveIntoItself(const std::string &from, const std::string &) {
  return MoveTree(from, from + "/x");
}
bool MoveUp(const std::string &from, const std::string &) {
  return MoveTree(from + "/x", from);
}
// $F and $T are directories made anew for each row.
struct Row {
  const char *setUp;  // a shell command
  bool (*call)(const std::string &from, const std::string &to);
  const char *outcome;
  const char *check;  // a shell command that must succeed afterwards
};
constexpr Row kRows[] = {
    {"echo 1 >$F/x; echo 22 >$T/x; chmod 640 $T/x", CopyTree, "ok",
     "cmp $F/x $T/x && test $(stat -c %a $T/x) = 640"},
    {"mkdir $F/d; >$F/d/x; ln -s d $F/l", CopyFollowing, "ok", "test -f $T/l/x -a ! -L $T/l"},
    {"ln -s a $F/x; ln -s b $T/x", CopyTree, "EEXIST", "test $(readlink $T/x) = b"},
    // Nothing waits, and nothing is written elsewhere.
    {"mkfifo $F/x", CopyTree, "ok", "test -f $T/x -a ! -s $T/x"},
    {">$F/x; ln -s ../out $T/x", CopyTree, "ELOOP", "test ! -e $T/../out"},
    {"mkdir $F/x $T/../out; >$F/x/y; ln -s ../out $T/x", CopyTree, "ELOOP",
     "test ! -e $T/../out/y"},
    // What is allowed, and a little more of each.
    {"mkdir $F/d; printf abc >$F/d/x; ln -s x $F/d/y; >$F/z", CopyBounded, "ok",
     "diff -r --no-dereference $F $T"},
    {"printf ab >$F/x; printf cd >$F/y", CopyBounded, "EFBIG", "test $(cat $T/* | wc -c) = 2"},
    {"mkdir $F/d; touch $F/d/1 $F/d/2 $F/d/3 $F/d/4", CopyBounded, "EFBIG", "test ! -e $T/d/1"},
    {"mkfifo $F/x", CopyBounded, "EOPNOTSUPP", "test ! -e $T/x"},
    {">$F/x; echo old >$T/x", CopyBounded, "EEXIST", "grep -q old $T/x"},
    {">$F/x; echo old >$T/x", CopyNewX, "EEXIST", "grep -q old $T/x"},
    {"mkdir $F/x; echo old >$T/x", CopyX, "EISDIR", "grep -q old $T/x"},
    {"echo 1 >$F/x; ln $F/x $T/x", CopyX, "EEXIST", "grep -q 1 $F/x"},
    {"echo 1 >$F/x; >$T/y", MoveTree, "ok", "test ! -e $F && grep -q 1 $T/x"},
    {"rmdir $T; echo 1 >$F/x", MoveTree, "ok", "test ! -e $F && grep -q 1 $T/x"},
    {"rmdir $T; >$T", MoveTree, "ENOTDIR", "test -d $F"},
    {"echo 1 >$F/y", MoveIntoItself, "EINVAL", "grep -q 1 $F/y"},
    {"mkdir $F/x; echo 1 >$F/x/y", MoveUp, "ok", "grep -q 1 $F/y && test ! -e $F/x"},
    // It would be copied over what it lies in.
    {"mkdir -p $F/x/x; echo 1 >$F/x/x/y", MoveUp, "EINVAL", "grep -q 1 $F/x/x/y"},
};

TEST(FileTree, EveryCase) {
  for (const Row &row : kRows) {
    const ScratchDir dir;
    const std::string from = dir.Path("from"), to = dir.Path("to");
    const std::string shell = "F='" + from + "' T='" + to + "'; ";
    ASSERT_TRUE(Shell(shell + "mkdir $F $T; " + row.setUp)) << row.setUp;
    CaptureOutput([&] { EXPECT_EQ(row.outcome, OkOrErrno(row.call(from, to))) << row.setUp; });
    EXPECT_EQ(row.outcome != std::string("ok"), HadMessages()) << row.setUp;
    EXPECT_TRUE(Shell(shell + row.check)) << row.setUp << " / " << row.check;
  }
}

// ---- failures in turn ------------------------------------------------------------------------

void MakeTree(const ScratchDir &dir) {
  for (const char *name : {"from", "from/sub", "to"}) fs::create_directory(dir.Path(name));
  dir.Write("from/big", std::string(20'000, 'b'));
  dir.Write("from/sub/small", "s");
  fs::create_symlink("sub", dir.Path("from/link"));
}

struct Result {
  bool ok;
  int error;
  std::string call;  // the one that failed; empty when there were fewer than n
};

// Runs `operation` with its nth call failing.
Result FailNth(int n, const std::function<bool()> &operation) {
  const size_t before = OpenDescriptors();
  Result result;
  CaptureOutput([&] {
    SysFault fault("", n, EIO);
    result.ok = operation();
    result.error = errno;
    fault.Disarm();
    result.call = fault.Call();
  });
  EXPECT_EQ(before, OpenDescriptors()) << result.call;
  return result;
}

TEST(FileTree, NothingIsLostOrHiddenWhicheverCallFails) {
  for (const bool move : {false, true}) {
    Result result = {false, 0, "none"};
    for (int n = 1; !result.call.empty(); n++) {
      const ScratchDir dir;
      MakeTree(dir);
      const std::string from = dir.Path("from"), to = dir.Path("to");
      dir.Write("to/big", "");  // so that no move is a rename
      const std::string before = Snapshot(from);
      result = FailNth(n, [&] { return move ? MoveTree(from, to) : CopyTree(from, to); });
      // Whatever fails, the files are in the one place or in the other, and nothing is half written.
      EXPECT_TRUE((move && result.ok) || before == Snapshot(from)) << result.call;
      EXPECT_EQ("s", ReadFile((result.ok ? to : from) + "/sub/small")) << result.call;
      const std::string big = ReadFile(to + "/big");
      EXPECT_TRUE(big.empty() || big == std::string(20'000, 'b')) << result.call;
      EXPECT_NE(result.ok && !(move && fs::exists(from)), HadMessages()) << result.call;
      // Not what closes a directory, nor whether the destination exists, nor that it does so already.
      EXPECT_TRUE(move || !result.ok || result.call == "stat" || result.call == "mkdir" ||
                  result.call == "close" || result.call.empty());
    }
  }
}

TEST(DeleteTree, GoesOnAndTellsWhicheverCallFails) {
  const ScratchDir dir;
  const std::string from = dir.Path("from");
  Result result = {false, 0, "none"};
  for (int n = 1; !result.call.empty(); n++) {
    MakeTree(dir);
    result = FailNth(n, [&] { return File_DeleteDirectoryTree(from.c_str()); });
    const std::string &call = result.call;
    // Closing what was only read may fail unseen; and whether the top is there, opening it tells.
    EXPECT_EQ(call.empty() || call == "close" || call == "stat", result.ok) << call;
    EXPECT_TRUE(result.ok ? !fs::exists(from) : result.error == EIO) << call;
    if (call == "unlinkat" || call == "fstatat") {
      EXPECT_FALSE(fs::exists(from + "/sub/small") && fs::exists(from + "/big")) << call;
    }
    fs::remove_all(from);
  }
}

TEST(Rename, IsACopyWhereItCannotBeARename) {
  const ScratchDir dir;
  const std::string old = dir.Write("old", "content"), made = dir.Path("made");
  for (const int n : {1, 2}) {
    const SysFault fault("close", n, EIO);
    EXPECT_FALSE(File_Copy(old.c_str(), made.c_str(), true)) << n;
  }
  fs::remove(made);
  const SysFault fault("rename", 1, EXDEV);
  EXPECT_TRUE(File_Rename(old.c_str(), dir.Path("new").c_str(), nullptr));
  EXPECT_TRUE(fault.Fired() && errno == 0 && !fs::exists(old));
  EXPECT_EQ("content", ReadFile(dir.Path("new")));
  // A directory made for a copy that then fails goes again; one without room for the copy stays.
  MakeTree(dir);
  fs::create_symlink("..", dir.Path("from/sub/up"));
  EXPECT_EQ(20'002,
            File_GetSizeEx(dir.Path("from").c_str()));  // with "small" once more by the link
  const std::string bad = dir.Write("from/bad\xFF", "");
  const SysFault again("rename", 1, EXDEV);
  CaptureOutput([&] { EXPECT_FALSE(MoveTree(dir.Path("from"), made)); });
  EXPECT_TRUE(HadMessages() && !fs::exists(made));
  fs::remove(bad);
  fs::resize_file(dir.Path("from/big"), fs::space(dir.Path()).available + (1 << 20));
  const SysFault last("rename", 1, EXDEV);
  EXPECT_EQ("ENOSPC", OkOrErrno(MoveTree(dir.Path("from"), made)));
  EXPECT_TRUE(HadMessages() && fs::exists(made) && fs::exists(dir.Path("from/sub/small")));
}

}  // namespace
