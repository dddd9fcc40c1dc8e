// fileTree_test.cpp -- copies, moves and sizes of files and trees, against cp and diff.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fd.h"
#include "file.h"
#include "heap.h"
#include "msg.h"
#include "tests/support/capture.h"
#include "tests/support/sandboxSkip.h"
#include "tests/support/scratchDir.h"
#include "tests/support/sysFault.h"

namespace {

namespace fs = std::filesystem;

// The pending messages, the last one first, without empty lines; none are left.
std::string Messages() {
  MsgList *const list = Msg_TakePending();
  const HeapStr text(MsgList_ToString(list));
  MsgList_Free(list);
  return text == nullptr ? "" : std::regex_replace(text.get(), std::regex("\n+"), "\n");
}

bool Shell(const std::string &command) {
  return system(command.c_str()) == 0;  // NOLINT(cert-env33-c): the paths are the test's own
}

bool SameTrees(const std::string &a, const std::string &b) {
  return Shell("diff -r --no-dereference '" + a + "' '" + b + "' >/dev/null");
}

// What a tree is, down to inodes and times.
std::set<std::string> Snapshot(const std::string &tree) {
  std::set<std::string> all;
  for (const auto &entry : fs::recursive_directory_iterator(tree)) {
    struct stat status;
    EXPECT_EQ(0, lstat(entry.path().c_str(), &status));
    all.insert(std::to_string(status.st_ino) + " " + std::to_string(status.st_mode) + " " +
               std::to_string(status.st_mtim.tv_nsec) + entry.path().string() +
               (entry.is_symlink() ? fs::read_symlink(entry) : "").string() +
               (entry.is_regular_file() ? ReadFile(entry.path()) : ""));
  }
  return all;
}

int OpenFds() {
  const fs::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

// ---- random trees ----------------------------------------------------------------------------

std::string OddName(std::mt19937 *random, int number) {
  static constexpr const char *kBeginnings[] = {"new\nline ", "größe 雪 ", "-%s'\"\\", "...", ""};
  std::string name = kBeginnings[(*random)() % 5] + std::to_string(number);
  return (*random)() % 6 == 0 ? name + std::string(255 - name.size(), 'x') : name;
}

void MakeEntry(const ScratchDir &dir, const std::string &path, std::vector<std::string> *folders,
               std::mt19937 *random) {
  static constexpr const char *kTargets[] = {".", "..", "missing", "../..//a b", "/etc", "\n"};
  static constexpr size_t kSizes[] = {0, 1, 8191, 8192, 8193, 50'000};
  const auto pick = (*random)() % 10;
  if (pick < 2) {
    fs::create_directory(dir.Path(path));
    folders->push_back(path + "/");
  } else if (pick < 4) {
    ASSERT_EQ(0, symlink(kTargets[(*random)() % 6], dir.Path(path).c_str()));
  } else {
    std::string content(kSizes[(*random)() % 6], 0);
    for (char &c : content) c = static_cast<char>((*random)());
    chmod(dir.Write(path, content).c_str(), (*random)() % 2 == 0 ? 0400 : 0755);
  }
}

TEST(CopyTree, CopiesWhatCpCopiesAndNoMetadata) {
  const char *const rounds = getenv("LUMEN_ROUNDS");
  const int entries = rounds == nullptr ? 300 : std::min(10'000, 100 * atoi(rounds));
  const ScratchDir dir;
  std::mt19937 random(3);
  for (const char *name : {"from", "to", "cp"}) fs::create_directory(dir.Path(name));
  std::vector<std::string> folders = {"from/"};
  for (int i = 0; i < entries; i++) {
    const std::string &folder = folders[random() % folders.size()];
    MakeEntry(dir, folder + OddName(&random, i), &folders, &random);
  }
  const std::set<std::string> before = Snapshot(dir.Path("from"));
  const mode_t mask = umask(027);
  EXPECT_TRUE(File_CopyTree(dir.Path("from").c_str(), dir.Path("to").c_str(), false, false));
  umask(mask);
  ASSERT_TRUE(Shell("cp -R '" + dir.Path("from") + "/.' '" + dir.Path("cp") + "'"));
  EXPECT_TRUE(SameTrees(dir.Path("cp"), dir.Path("to")));
  EXPECT_EQ(before, Snapshot(dir.Path("from")));
  EXPECT_EQ("", Messages());
  for (const auto &entry : fs::recursive_directory_iterator(dir.Path("to"))) {
    const auto mode = static_cast<mode_t>(entry.symlink_status().permissions());
    if (entry.is_symlink()) continue;
    EXPECT_EQ(entry.is_directory() ? 0750u : 0600u, mode) << entry.path();
  }
}

TEST(CopyTree, ReachesTheLimitOfPathsAndTellsOfIt) {
  const ScratchDir dir;
  fs::create_directory(dir.Path("from"));
  dir.Write("from/file", "");
  ASSERT_EQ(0, symlink(".", dir.Path("from/self").c_str()));
  fs::create_directory(dir.Path("to"));
  EXPECT_FALSE(File_CopyTree(dir.Path("from").c_str(), dir.Path("to").c_str(), false, true));
  EXPECT_EQ(ELOOP, errno);
  EXPECT_EQ(0u, Messages().find("Unable to get information on '" + dir.Path("from/self/self")));
  EXPECT_EQ(0, File_GetSizeEx(dir.Path("from").c_str()));

  fs::create_directory(dir.Path("deep"));
  ASSERT_TRUE(Shell("cd '" + dir.Path("to") + "' && mkdir -p $(printf 'd/%.0s' $(seq 500))"));
  EXPECT_TRUE(File_CopyTree(dir.Path("to").c_str(), dir.Path("deep").c_str(), false, false));
  EXPECT_TRUE(SameTrees(dir.Path("to"), dir.Path("deep")));
}

// ---- one case after the other ----------------------------------------------------------------

// `from` and `to` are directories made anew for each row; %F and %T in messages are their paths.
struct Row {
  const char *setUp;  // a shell command
  bool (*call)(const std::string &from, const std::string &to);
  int error;  // 0 for success
  const char *messages;
  const char *check;  // a shell command that must succeed afterwards
};

bool CopyTree(const std::string &from, const std::string &to) {
  return File_CopyTree(from.c_str(), to.c_str(), true, false);
}
bool CopyX(const std::string &from, const std::string &to) {
  return File_Copy((from + "/x").c_str(), (to + "/x").c_str(), true);
}
bool CopyNewX(const std::string &from, const std::string &to) {
  return File_Copy((from + "/x").c_str(), (to + "/x").c_str(), false);
}
bool MoveTree(const std::string &from, const std::string &to) {
  bool asRename = true;
  const bool ok = File_MoveTree(from.c_str(), to.c_str(), true, &asRename);
  return ok && !asRename;
}
bool MoveIntoItself(const std::string &from, const std::string &) {
  return File_MoveTree(from.c_str(), (from + "/x").c_str(), true, nullptr);
}
bool MoveUp(const std::string &from, const std::string &) {
  return File_MoveTree((from + "/x").c_str(), from.c_str(), true, nullptr);
}
bool RenameX(const std::string &from, const std::string &to) {
  return File_Rename((from + "/x").c_str(), (to + "/x").c_str(), nullptr);
}

constexpr Row kRows[] = {
    {"echo 1 >$F/x; echo 22 >$T/x; chmod 640 $T/x", CopyTree, 0, "",
     "cmp $F/x $T/x && test $(stat -c %a $T/x) = 640"},
    {"ln -s sub $F/link; mkdir $F/sub; >$F/sub/file", CopyTree, 0, "",
     "test $(readlink $T/link) = sub -a -f $T/sub/file"},
    {"rmdir $F; >$F", CopyTree, ENOTDIR, "Source path '$F' is not a directory.\n", "test -d $T"},
    {"rmdir $T", CopyTree, ENOENT, "Destination path '$T' is not a directory.\n", "test ! -e $T"},
    {"ln -s a $F/x; ln -s b $T/x", CopyTree, EEXIST,
     "Unable to symlink 'a' to '$T/x': File exists\n", "test $(readlink $T/x) = b"},
    {"mkdir $F/x; >$F/x/y; >$T/x", CopyTree, ENOTDIR,
     "Unable to copy '$F/x/y' to '$T/x/y': Not a directory\n"
     "Unable to create a new '$T/x/y' file: Error.\n",
     "test -f $T/x"},
    // Nothing waits, and nothing is written elsewhere.
    {"mkfifo $F/x", CopyTree, 0, "", "test -f $T/x -a ! -s $T/x"},
    {">$F/x; ln -s ../out $T/x", CopyTree, ELOOP,
     "Unable to copy '$F/x' to '$T/x': Too many levels of symbolic links\n"
     "Unable to create a new '$T/x' file: Error.\n",
     "test ! -e $T/../out"},
    {"mkdir $F/x $T/../out; >$F/x/y; ln -s ../out $T/x", CopyTree, ELOOP,
     "Unable to copy '$F/x' to '$T/x': Too many levels of symbolic links\n",
     "test ! -e $T/../out/y"},
    {"touch $(printf '%s/bad\\377' $F)", CopyTree, ENOENT,
     "Unable to get information on '$F/\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD' when copying files.\n",
     "true"},
    {">$F/x; echo old >$T/x", CopyNewX, EEXIST,
     "Unable to create a new '$T/x' file: The file already exists.\n", "grep -q old $T/x"},
    {"", CopyX, ENOENT,
     "Unable to open the '$F/x' file for read access: Could not find the file.\n",
     "test ! -e $T/x"},
    {"echo 1 >$F/x; ln $F/x $T/x", CopyX, EEXIST,
     "Unable to create a new '$T/x' file: The file already exists.\n", "grep -q 1 $F/x"},
    {"mkdir $F/x; echo old >$T/x", RenameX, EISDIR, "Read error: Is a directory.\n",
     "grep -q old $T/x"},
    {"mkfifo $F/x; (echo 1 >$F/x) &", CopyX, 0, "", "grep -q 1 $T/x"},
    {"echo 1 >$F/x; >$T/y", MoveTree, 0, "", "test ! -e $F && grep -q 1 $T/x"},
    {"rmdir $F; >$F", MoveTree, ENOTDIR, "Source path '$F' is not a directory.\n", "test -f $F"},
    {"rmdir $T; >$T", MoveTree, ENOTDIR, "The destination path '$T' is not a directory.\n",
     "test -d $F"},
    {"rmdir $T; ln -s $T $T", MoveTree, ELOOP, nullptr, "test -d $F"},
    {"ln -s a $F/x; >$T/x", MoveTree, EEXIST,
     "Could not rename and failed to copy source directory '$F'.\n"
     "Unable to symlink 'a' to '$T/x': File exists\n",
     "test -L $F/x -a -f $T/x"},
    {"echo 1 >$F/y", MoveIntoItself, EINVAL,
     "Could not rename and failed to copy source directory '$F'.\n", "grep -q 1 $F/y"},
    {"mkdir -p $F/x/x; echo 1 >$F/x/x/y", MoveUp, EINVAL,
     "Could not rename and failed to copy source directory '$F/x'.\n", "grep -q 1 $F/x/x/y"},
    {"mkdir $F/x; echo 1 >$F/x/y", MoveUp, 0, "", "grep -q 1 $F/y && test ! -e $F/x"},
};

TEST(FileTree, EveryCase) {
  for (const Row &row : kRows) {
    const ScratchDir dir;
    const std::string from = dir.Path("from");
    const std::string to = dir.Path("to");
    const std::string shell = "F='" + from + "' T='" + to + "'; ";
    ASSERT_TRUE(Shell(shell + "mkdir $F $T; " + row.setUp)) << row.setUp;
    CaptureOutput([&] {
      errno = 0;
      EXPECT_EQ(row.error == 0, row.call(from, to)) << row.setUp;
      EXPECT_TRUE(row.error == 0 || row.error == errno) << row.setUp << errno;
    });
    std::string expected = row.messages == nullptr
                               ? std::to_string(row.error) + ":Failed to stat destination '$T'.\n"
                               : row.messages;
    for (const auto &[mark, path] : {std::pair{"$F", from}, {"$T", to}}) {
      for (size_t at; (at = expected.find(mark)) != std::string::npos;) {
        expected.replace(at, 2, path);
      }
    }
    EXPECT_EQ(expected, Messages()) << row.setUp;
    EXPECT_TRUE(Shell(shell + row.check)) << row.setUp << " / " << row.check;
  }
}

// ---- failures in turn --------------------------------------------------------------------------

void MakeTree(const ScratchDir &dir) {
  for (const char *name : {"from", "from/sub", "to"}) fs::create_directory(dir.Path(name));
  dir.Write("from/big", std::string(20'000, 'b'));
  dir.Write("from/sub/small", "s");
  ASSERT_EQ(0, symlink("sub", dir.Path("from/link").c_str()));
}

// Copies, or moves, with the nth call failing; false when there were fewer calls.
bool FailNth(int n, bool move) {
  const ScratchDir dir;
  MakeTree(dir);
  const std::string from = dir.Path("from");
  const std::string to = dir.Path("to");
  dir.Write("to/big", "");  // so that no move is a rename
  const std::set<std::string> before = Snapshot(from);
  const int fds = OpenFds();
  SysFault fault("", n, EIO);
  const bool ok = move ? File_MoveTree(from.c_str(), to.c_str(), true, nullptr)
                       : File_CopyTree(from.c_str(), to.c_str(), true, false);
  const int error = errno;
  fault.Disarm();
  const std::string call = fault.Call();
  EXPECT_EQ(fds, OpenFds()) << call;
  // Whatever fails, the files are in the one place or in the other.
  EXPECT_TRUE((move && ok) || before == Snapshot(from)) << call;
  const std::string place = ok ? to : from;
  EXPECT_EQ(20'000u, ReadFile(place + "/big").size()) << call;
  EXPECT_EQ("s", ReadFile(place + "/sub/small")) << call;
  EXPECT_EQ(ok && !(move && fs::exists(from)), Messages().empty()) << call;
  for (const auto &entry : fs::recursive_directory_iterator(to)) {  // nothing is half written
    const auto size = entry.is_regular_file() ? entry.file_size() : 0;
    EXPECT_TRUE(size < 2 || size == 20'000) << entry.path() << call;
  }
  if (move || !fault.Fired()) return fault.Fired();
  // Two answers do not matter here: whether the destination exists, and that it does so already.
  EXPECT_TRUE(!ok || call == "stat" || call == "mkdir") << call;
  EXPECT_TRUE(ok || error == EIO || (error == ENOENT && call == "mkdir")) << call;
  return true;
}

TEST(FileTree, EachCallFailsInTurn) {
  for (const bool move : {false, true}) {
    for (int n = 1; FailNth(n, move); n++) {
    }
  }
}

TEST(Rename, IsACopyWhereItCannotBeARename) {
  const ScratchDir dir;
  const std::string old = dir.Write("old", "content");
  bool asRename = true;
  const SysFault fault("rename", 1, EXDEV);
  EXPECT_TRUE(File_Rename(old.c_str(), dir.Path("new").c_str(), &asRename));
  EXPECT_FALSE(asRename);
  EXPECT_EQ(0, errno);
  EXPECT_FALSE(fs::exists(old));
  EXPECT_EQ("content", ReadFile(dir.Path("new")));
  // A directory made for a copy that then fails goes again.
  MakeTree(dir);
  const SysFault again("rename", 1, EXDEV);
  dir.Write("from/sub/bad\xFF", "");
  CaptureOutput([&] {
    EXPECT_FALSE(File_MoveTree(dir.Path("from").c_str(), dir.Path("made").c_str(), true, nullptr));
  });
  EXPECT_NE("", Messages());
  EXPECT_TRUE(again.Fired() && !fs::exists(dir.Path("made")));
}

TEST(FileTree, AFullFileSystem) {
  const ScratchDir dir;
  MakeTree(dir);
  fs::create_directory(dir.Path("mount"));
  const ChildResult child = RunInChild([&] {
    if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("", dir.Path("mount").c_str(), "tmpfs", 0, "size=16k") != 0) {
      _exit(77);
    }
    const std::string big = dir.Path("mount/big");
    bool right = !File_Copy(dir.Path("from/big").c_str(), big.c_str(), true) && errno == ENOSPC &&
                 !fs::exists(big) &&
                 Messages() == "Write error: There is no space left on the device.\n";
    const std::string made = dir.Path("mount/made");
    right = right && !File_MoveTree(dir.Path("from").c_str(), made.c_str(), true, nullptr) &&
            errno == ENOSPC && fs::is_directory(made) && fs::exists(dir.Path("from/big")) &&
            Messages() ==
                "There is not enough space in the file system to move the directory "
                "tree. Free 19.6 KB and try again.\n";
    _exit(right ? 0 : 1);
  });
  if (child.exitStatus == 77) SKIP_FOR_WANT_OF("a mount namespace");
  EXPECT_EQ(0, child.exitStatus) << child.output;
}

TEST(Size, OfFilesTreesAndWhatIsNeither) {
  const ScratchDir dir;
  MakeTree(dir);
  ASSERT_EQ(0, mkfifo(dir.Path("from/fifo").c_str(), 0600));
  ASSERT_EQ(0, truncate(dir.Path("from/big").c_str(), off_t{5} << 30));
  ASSERT_EQ(0, symlink("..", dir.Path("from/sub/up").c_str()));
  ASSERT_EQ(0, symlink("missing", dir.Path("from/sub/dangling").c_str()));
  // "small" counts in sub and in link.
  EXPECT_EQ((int64_t{5} << 30) + 2, File_GetSizeEx(dir.Path("from").c_str()));
  EXPECT_EQ(-1, File_GetSizeEx(dir.Path("missing").c_str()));
  EXPECT_EQ(-1, File_GetSizeEx(nullptr));
}

}  // namespace
