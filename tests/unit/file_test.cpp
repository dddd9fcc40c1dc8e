// file_test.cpp -- directories: what they are, making, listing and removing them.

#include "file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "fd.h"
#include "lib/file/fileInt.h"
#include "tests/support/capture.h"
#include "tests/support/process.h"
#include "tests/support/scratchDir.h"
#include "tests/support/sysFault.h"

namespace {

namespace fs = std::filesystem;

constexpr char kReplacement[] = "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD";

// Everything below `dir`, and `dir`, as find sees it.
std::string Find(const std::string &dir) {
  Launch launch;
  launch.argv = {"/usr/bin/find", dir, "-printf", "%P %y %m %l\\n"};
  Process find(launch);
  find.Wait();
  return find.Output();
}

bool IsThere(const std::string &path) {
  return fs::exists(fs::symlink_status(path));
}

int OpenFds() {
  return static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

std::string Outcome(bool ok) {
  return ok ? "ok" : strerrorname_np(errno);
}

std::set<std::string> Names(const std::string &dir) {
  FileNames names;
  EXPECT_TRUE(names.List(dir.c_str()));
  return {names.begin(), names.end()};
}

// ---- what a path is, making directories -------------------------------------------------------

TEST(Attributes, AreThoseOfStatAndFollowLinks) {
  const ScratchDir dir;
  const std::string file = dir.Write("file", "12345"), fifo = dir.Path("fifo");
  ASSERT_TRUE(mkfifo(fifo.c_str(), 0600) == 0 && symlink("/dev", dir.Path("link").c_str()) == 0);
  FileData data;
  struct stat status;
  for (const auto &[path, type] : {std::pair{file, FILE_TYPE_REGULAR},
                                   {dir.Path("link"), FILE_TYPE_DIRECTORY},
                                   {fifo, FILE_TYPE_UNCERTAIN},
                                   {"/dev/null", FILE_TYPE_CHARDEVICE}}) {
    ASSERT_TRUE(FileAttributes(path.c_str(), &data) == 0 && stat(path.c_str(), &status) == 0);
    EXPECT_EQ(std::make_tuple(status.st_atime, status.st_ctime, status.st_mtime, status.st_size,
                              type, status.st_mode, status.st_uid, status.st_gid),
              std::make_tuple(data.fileAccessTime, data.fileCreationTime, data.fileModificationTime,
                              data.fileSize, data.fileType, data.fileMode, data.fileOwner,
                              data.fileGroup));
    EXPECT_EQ(type == FILE_TYPE_DIRECTORY, File_IsDirectory(path.c_str()));
    EXPECT_EQ(type == FILE_TYPE_REGULAR, File_IsRegularFile(path.c_str()));
    EXPECT_FALSE(File_IsEmptyDirectory(path.c_str()));
  }
  EXPECT_EQ("EFAULT EFAULT EFAULT", Outcome(File_Exists(nullptr)) + " " +
                                        Outcome(File_CreateDirectory(nullptr)) + " " +
                                        Outcome(File_DeleteDirectoryTree(nullptr)));
}

TEST(CreateIfAbsent, AcceptsDirectoriesAsTheyStandAndNothingElse) {
  const ScratchDir dir;
  const auto create = [&](const std::string &name) {
    return Outcome(File_CreateDirectoryIfAbsent(dir.Path(name).c_str(), 0700));
  };
  fs::create_directory(dir.Path("there"));
  ASSERT_EQ(0, chmod(dir.Path("there").c_str(), 0511));
  dir.Write("file", "");
  ASSERT_TRUE(symlink("there", dir.Path("link").c_str()) == 0 &&
              symlink("gone", dir.Path("dangling").c_str()) == 0);
  EXPECT_EQ("ok ok ok ENOTDIR ENOENT ENOENT ENOTDIR",
            create("new") + " " + create("there") + " " + create("link") + " " + create("file") +
                " " + create("dangling") + " " + create("no/x") + " " + create("file/x"));
  int mode;
  ASSERT_TRUE(File_GetFilePermissions(dir.Path("there").c_str(), &mode));
  EXPECT_EQ(S_IFDIR | 0511, mode);
  EXPECT_EQ("EEXIST", Outcome(File_CreateDirectory(dir.Path("there").c_str())));
}

TEST(CreateHierarchy, MakesWhatIsMissingAndTellsTheFirst) {
  const ScratchDir dir;
  char *topmost;
  const auto create = [&](const std::string &path) {
    const bool ok = File_CreateDirectoryHierarchyEx(path.c_str(), 0750, &topmost);
    const std::string outcome = Outcome(ok);
    const HeapStr owner(topmost);
    return outcome + " " + (topmost == nullptr ? "-" : topmost);
  };
  EXPECT_EQ("ok " + dir.Path("a"), create(dir.Path("a//b/c//")));
  EXPECT_EQ(" d 750 \nb d 750 \nb/c d 750 \n", Find(dir.Path("a")));
  EXPECT_EQ("ok -", create(dir.Path("a/b/")));
  EXPECT_EQ("ok -ok -", create("/") + create(""));
  dir.Write("a/f", "");
  EXPECT_EQ(
      "FILE: File_CreateDirectoryHierarchyEx: Failure on '" + dir.Path("a/f") +
          "'. Error = " + std::to_string(ENOTDIR) + "\n",
      WithoutStamps(CaptureOutput([&] { EXPECT_EQ("ENOTDIR -", create(dir.Path("a/f/g"))); })));
  EXPECT_TRUE(File_IsDirectory(dir.Path("a").c_str()));
}

// ---- removing ---------------------------------------------------------------------------------

TEST(DeletePath, RemovesWhatALinkNamesOnlyWhenAskedTo) {
  const ScratchDir dir;
  const auto link = [&](const std::string &target) {
    fs::remove(dir.Path("link"));
    EXPECT_EQ(0, symlink(target.c_str(), dir.Path("link").c_str()));
    return dir.Path("link");
  };
  const std::string file = dir.Write("file", "");
  EXPECT_TRUE(File_UnlinkNoFollow(link(file).c_str()) == 0 && IsThere(file));
  // A relative target is not looked for beside the link.
  EXPECT_TRUE(File_Unlink(link("file").c_str()) == 0 && IsThere(file));
  EXPECT_FALSE(IsThere(dir.Path("link")));
  EXPECT_TRUE(File_Unlink(link(file).c_str()) == 0 && !IsThere(file));
  EXPECT_TRUE(File_Unlink(link(file).c_str()) == 0);
  EXPECT_TRUE(File_DeleteIfPresent(dir.Path("link").c_str()) == 0 && errno == 0);
  EXPECT_TRUE(File_Unlink(dir.Path("link").c_str()) == ENOENT && errno == ENOENT);
  // What cannot be removed leaves the link.
  EXPECT_EQ(EISDIR, File_DeleteIfPresent(link(dir.Path()).c_str()));
  EXPECT_TRUE(IsThere(dir.Path("link")));
}

// A tree of about `count` entries with everything that a directory can hold.
void Grow(const std::string &top, int count, std::mt19937 *random, const std::string &outside) {
  std::vector<std::string> dirs = {top};
  fs::create_directory(top);
  const std::vector<std::string> targets = {"gone", outside, ".", "..", top, outside + "/file"};
  for (int i = 0; i < count; i++) {
    const std::string &dir = dirs[(*random)() % dirs.size()];
    std::string name = std::to_string(i);
    name += std::vector<std::string>{"n", "line\nfeed", "ü", " ", "-rf"}[(*random)() % 5];
    if (i % 50 == 0) name.resize(255, 'x');
    const std::string path = fs::path(dir) / name;
    switch ((*random)() % 4) {
      case 0:
        fs::create_directory(path);
        dirs.push_back(path);
        break;
      case 1:
        fs::create_symlink(targets[(*random)() % targets.size()], path);
        break;
      case 2:
        ASSERT_EQ(0, mkfifo(path.c_str(), 0));
        break;
      default:
        Fd(open(path.c_str(), O_CREAT | O_WRONLY, (*random)() % 01000));
    }
    if (path.size() > 3000) dirs.pop_back();
  }
}

int Rounds() {
  const char *const rounds = getenv("LUMEN_ROUNDS");
  return rounds == nullptr ? 6 : static_cast<int>(strtol(rounds, nullptr, 10));
}

TEST(DeleteTree, RemovesAnyTreeAndNothingElse) {
  const ScratchDir dir;
  const std::string top = dir.Path("top"), outside = dir.Path("outside");
  fs::create_directory(outside);
  dir.Write("outside/file", "kept");
  const std::string before = Find(outside);
  std::mt19937 random(7);
  for (int round = 0; round < Rounds(); round++) {
    Grow(top, round * 20, &random, outside);
    EXPECT_EQ("ok", Outcome(File_DeleteDirectoryContent(top.c_str())));
    EXPECT_TRUE(File_IsEmptyDirectory(top.c_str()));
    Grow(top, round * 20, &random, outside);
    EXPECT_EQ("ok", Outcome(File_DeleteDirectoryTree((top + "/").c_str())));
    EXPECT_EQ(0, errno);
    EXPECT_FALSE(IsThere(top)) << Find(top);
  }
  EXPECT_EQ(before, Find(outside));
  // Missing, and in the place of a directory a file; a link to one is followed at the top.
  EXPECT_EQ("ok", Outcome(File_DeleteDirectoryTree(top.c_str())));
  EXPECT_EQ("ok", Outcome(File_DeleteDirectoryTree(dir.Path("outside/file/x").c_str())));
  EXPECT_EQ("ENOTDIR", Outcome(File_DeleteDirectoryTree(dir.Path("outside/file").c_str())));
  fs::create_symlink(outside, dir.Path("link"));
  EXPECT_EQ("ENOTDIR", Outcome(File_DeleteDirectoryTree(dir.Path("link").c_str())));
  EXPECT_TRUE(File_IsEmptyDirectory(outside.c_str()));
}

// Makes `depth` directories inside each other.
void Dig(const std::string &top, int depth) {
  fs::create_directory(top);
  Fd here(open(top.c_str(), O_RDONLY));
  for (int i = 0; i < depth; i++) {
    ASSERT_EQ(0, mkdirat(here.Get(), "downwards", 0700));
    here.Reset(openat(here.Get(), "downwards", O_RDONLY));
  }
}

TEST(DeleteTree, GoesDeeperThanPathsAndDescriptors) {
  const ScratchDir dir;
  Dig(dir.Path("top"), PATH_MAX / 8);
  rlimit files;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &files));
  rlimit few = files;
  few.rlim_cur = static_cast<rlim_t>(OpenFds()) + 3;
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
  const std::string outcome = Outcome(File_DeleteDirectoryTree(dir.Path("top").c_str()));
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &files));
  EXPECT_EQ("ok", outcome);
}

TEST(DeleteTree, OfAnUndecodableNameLeavesItsDirectory) {
  const ScratchDir dir;
  for (const char *name : {"bad\xFF", "b\xC3", "good"}) dir.Write(name, "");
  const std::string output = WithoutStamps(CaptureOutput([&] {
    EXPECT_EQ((std::set<std::string>{kReplacement, "good"}), Names(dir.Path()));
  }));
  EXPECT_NE(std::string::npos,
            output.find("File_WalkDirectoryNext: file '" + dir.Path() +
                        "' in directory 'bad\\xFF' cannot be converted to UTF8\n"))
      << output;
  CaptureOutput(
      [&] { EXPECT_EQ("ENOTEMPTY", Outcome(File_DeleteDirectoryTree(dir.Path().c_str()))); });
  EXPECT_FALSE(IsThere(dir.Path("good")));
}

TEST(DeleteTree, IsNotLedElsewhereByWhoChangesTheTree) {
  const ScratchDir dir;
  const std::string outside = dir.Path("outside");
  fs::create_directories(dir.Path("top/d"));
  dir.Write("top/d/x", "");
  fs::create_directory(outside);
  dir.Write("outside/x", "");
  {
    SysFault swap("openat", 1, 0, [&] {
      fs::rename(dir.Path("top/d"), dir.Path("aside"));
      fs::create_symlink(outside, dir.Path("top/d"));
    });
    EXPECT_FALSE(File_DeleteDirectoryTree(dir.Path("top").c_str()));
    EXPECT_TRUE(swap.Fired());
  }
  EXPECT_TRUE(IsThere(outside + "/x") && IsThere(dir.Path("aside/x")));
  // Moved while it is emptied: the way up from there leads elsewhere.
  fs::create_directories(dir.Path("top/e/f/g"));
  dir.Write("top/e/f/g/x", "");
  fs::remove(dir.Path("top/d"));
  SysFault move("unlinkat", 1, 0, [&] { fs::rename(dir.Path("top/e"), outside + "/e"); });
  EXPECT_EQ("ESTALE", Outcome(File_DeleteDirectoryTree(dir.Path("top").c_str())));
  EXPECT_TRUE(IsThere(outside + "/x") && IsThere(outside + "/e"));
}

TEST(DeleteTree, EveryCallFailingInTurn) {
  const ScratchDir dir;
  const std::string top = dir.Path("top");
  std::set<std::string> seen;
  std::string call = "none";
  for (int n = 1; !call.empty(); n++) {
    fs::create_directories(top + "/a/b/c");
    fs::create_directories(top + "/d");
    for (const char *name : {"top/f", "top/a/f", "top/a/b/c/f", "top/d/f"}) dir.Write(name, "");
    const int before = OpenFds();
    std::string outcome;
    const std::string output = CaptureOutput([&] {
      SysFault fault("", n, EIO);
      const bool ok = File_DeleteDirectoryTree(top.c_str());
      outcome = Outcome(ok);
      call = fault.Call();
    });
    // Closing what was only read may fail unseen; and whether the top is there, opening it tells.
    const bool isUnseen = call.empty() || call == "close" || call == "stat";
    EXPECT_EQ(isUnseen ? "ok" : "EIO", outcome) << n << call;
    EXPECT_EQ(call == "fstatat", output.find("Lstat of '" + top + "/") != std::string::npos) << n;
    EXPECT_EQ(outcome == "ok", !IsThere(top)) << n << call;
    // All that another entry's failure does not keep is gone.
    const bool ofEntry = call == "unlinkat" || call == "fstatat";
    EXPECT_TRUE(!ofEntry || !IsThere(top + "/a") || !IsThere(top + "/d")) << n << call;
    EXPECT_TRUE(!ofEntry || !IsThere(top + "/f") || !IsThere(top + "/a")) << n << call;
    EXPECT_EQ(before, OpenFds()) << n << call;
    EXPECT_EQ("ok", Outcome(File_DeleteDirectoryTree(top.c_str())));
    seen.insert(call);
  }
  EXPECT_EQ((std::set<std::string>{"", "close", "fcntl", "fdopendir", "fstat", "fstatat", "open",
                                   "openat", "readdir", "rmdir", "stat", "unlinkat"}),
            seen);
}

// ---- listing ----------------------------------------------------------------------------------

TEST(List, HasEachNameOnceOrNone) {
  const ScratchDir dir;
  char *marker;
  char **names = &marker;
  EXPECT_EQ("ENOENT", Outcome(File_ListDirectory(dir.Path("gone").c_str(), &names) >= 0));
  EXPECT_EQ(&marker, names);
  EXPECT_EQ(0, File_ListDirectory(dir.Path().c_str(), &names));
  EXPECT_EQ(nullptr, names);
  std::set<std::string> expected, walked;
  for (int i = 0; i < 400; i++) expected.insert("name" + std::to_string(i));
  for (const std::string &name : expected) dir.Write(name, "");
  WalkDirContext *const walk = File_WalkDirectoryStart(dir.Path().c_str());
  ASSERT_NE(nullptr, walk);
  for (char *name; File_WalkDirectoryNext(walk, &name); free(name)) walked.insert(name);
  EXPECT_EQ(0, errno);
  File_WalkDirectoryEnd(walk);
  File_WalkDirectoryEnd(nullptr);
  EXPECT_TRUE(walked == expected && Names(dir.Path()) == expected);
  EXPECT_EQ(400, File_ListDirectory(dir.Path().c_str(), nullptr));
  FileNames list;
  const SysFault fault("readdir", 100, EIO);
  EXPECT_EQ("EIO", Outcome(list.List(dir.Path().c_str())));
  EXPECT_EQ(0, list.Count());
}

}  // namespace
