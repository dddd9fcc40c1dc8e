// filePath_test.cpp -- paths taken apart, joined and resolved.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <random>
#include <string>
#include <tuple>

#include "err.h"
#include "file.h"
#include "lib/file/fileInt.h"
#include "msg.h"
#include "tests/support/capture.h"
#include "tests/support/process.h"
#include "tests/support/scratchDir.h"
#include "tests/support/sysFault.h"

namespace {

std::string Take(char *owned) {
  const HeapStr string(owned);
  return string == nullptr ? "(null)" : string.get();
}

std::string Without(const char *end, std::string path) {
  path.erase(path.find_last_not_of(end) + 1);
  return path;
}

TEST(Paths, AreTakenApartAndJoinedAsTheModelSays) {
  std::mt19937 random(1);
  for (int round = 0; round < 5000; round++) {
    std::string path, name;
    for (auto length = random() % 9; length > 0; length--) path += "//ab."[random() % 5];
    for (auto length = random() % 4; length > 0; length--) name += "//a"[random() % 3];
    const size_t cut = path.rfind('/') + 1;  // 0 when there is none
    char *volume, *dir, *base, *pathName, *base2;
    File_SplitName(path.c_str(), &volume, &dir, &base);
    File_GetPathName(path.c_str(), &pathName, &base2);
    EXPECT_EQ(std::make_tuple("", path.substr(0, cut), path.substr(cut)),
              std::make_tuple(Take(volume), Take(dir), Take(base)));
    EXPECT_EQ(std::make_tuple(Without("/", path.substr(0, cut)), path.substr(cut)),
              std::make_tuple(Take(pathName), Take(base2)));
    EXPECT_EQ(Without("/", path), Take(File_StripSlashes(path.c_str())));
    EXPECT_EQ(
        Without("/", path) + "/" + name.substr(std::min(name.find_first_not_of('/'), name.size())),
        Take(File_PathJoin(path.c_str(), name.c_str())));
    EXPECT_EQ(path[0] == '/', File_IsFullPath(path.c_str()));
  }
  File_SplitName("a/b", nullptr, nullptr, nullptr);
  File_GetPathName("a/b", nullptr, nullptr);
  EXPECT_FALSE(File_IsFullPath(nullptr));
}

// The current directory of a scope.
class InDir {
  std::filesystem::path before_ = std::filesystem::current_path();

 public:
  explicit InDir(const std::string &dir) { std::filesystem::current_path(dir); }
  InDir(const InDir &) = delete;
  InDir &operator=(const InDir &) = delete;
  ~InDir() { std::filesystem::current_path(before_); }
};

TEST(FullPath, IsThatOfRealpathAsFarAsThePathExists) {
  const ScratchDir dir;
  std::filesystem::create_directories(dir.Path("real/sub"));
  dir.Write("real/file", "");
  ASSERT_EQ(0, symlink("real/sub/..", dir.Path("link").c_str()));
  const InDir in(dir.Path("real"));
  for (const std::string path :
       {"", ".", "sub", "sub/..", "./sub/../file", "missing", "sub/missing", "a/b/c", "../link",
        "../link/sub/x/y", "file/x", "/", "//", "/missing", "//missing/x", "/..", "/proc/../x",
        "../link//file"}) {
    Launch launch;
    launch.argv = {"/usr/bin/realpath", "-m", path.empty() ? "." : path};
    Process peer(launch);
    ASSERT_EQ(0, peer.Wait());
    errno = ETXTBSY;
    EXPECT_EQ(peer.Output(), Take(File_FullPath(path.c_str())) + "\n") << path;
    EXPECT_EQ(ETXTBSY, errno) << path;
  }
  EXPECT_EQ(dir.Path("real"), Take(File_FullPath(nullptr)));
  // Not realpath's way: what does not exist stays as it stands, and so does a link to nothing.
  ASSERT_EQ(0, symlink("gone", dir.Path("dangling").c_str()));
  EXPECT_EQ(dir.Path("dangling"), Take(File_FullPath("../dangling")));
  EXPECT_EQ(dir.Path("real/x/../y"), Take(File_FullPath("x/../y")));
  EXPECT_EQ(dir.Path("real/x//y///z//"), Take(File_FullPath("x//y///z//")));
  EXPECT_EQ(".", Take(FileFindExistingPrefix("")));
  EXPECT_EQ("/", Take(FileFindExistingPrefix("/missing//x")));
  EXPECT_EQ("sub/", Take(FileFindExistingPrefix("sub//x/y")));
  // What exists cannot be resolved either.
  SysFault fault("realpath", 2, EIO);
  EXPECT_EQ("/missing/x/", Take(File_FullPath("//missing///x//")));
  EXPECT_TRUE(fault.Fired());
}

TEST(Cwd, GrowsItsBufferAndReportsAFailureTwice) {
  const ScratchDir dir;
  {
    const InDir in(dir.Path());
    std::string expected = dir.Path();
    for (const std::string name(250, 'd'); expected.size() < 3500; expected += "/" + name) {
      ASSERT_TRUE(mkdir(name.c_str(), 0700) == 0 && chdir(name.c_str()) == 0);
    }
    EXPECT_EQ(expected, Take(File_Cwd("")));
    EXPECT_EQ("FILE: File_Cwd: Drive letter C on Linux?\n",
              WithoutStamps(CaptureOutput([] { Take(File_Cwd("C")); })));
    SysFault fault("getcwd", 2, EACCES);
    EXPECT_EQ("(null)", Take(File_FullPath("x")));
    EXPECT_EQ(EACCES, errno);
  }
  Msg_Reset();
  std::filesystem::create_directory(dir.Path("gone"));
  const InDir in(dir.Path("gone"));
  ASSERT_EQ(0, rmdir(dir.Path("gone").c_str()));
  const std::string why = Err_ErrnoToString(ENOENT);
  EXPECT_EQ("FILE: File_Cwd: getcwd() failed: " + why + "\n", WithoutStamps(CaptureOutput([] {
              EXPECT_EQ("(null)", Take(File_Cwd(nullptr)));
              EXPECT_EQ(ENOENT, errno);
            })));
  const std::string message = CaptureOutput(Msg_LogPending);
  EXPECT_NE(std::string::npos,
            message.find("Unable to retrieve the current working directory: " + why +
                         ". Check if the directory has been deleted or "
                         "unmounted.\n"))
      << message;
  Msg_Reset();
}

}  // namespace
