// file_test.cpp -- paths taken apart and resolved; what a path is; making, removing and listing.

#include "lib/public/file.h"

#include <set>

#include "lib/file/fileInt.h"
#include "tests/support/process.h"
#include "tests/support/sysFault.h"
#include "tests/support/test.h"

namespace {

TEST(Paths, AreTakenApartAndJoined) {
  // The path; its directory with the slashes behind it, and without; its name; itself without them.
  const char *const rows[][5] = {
      {"", "", "", "", ""},         {"a.b", "", "", "a.b", "a.b"},
      {"//", "//", "", "", ""},     {"//a", "//", "", "a", "//a"},
      {"a//", "a//", "a", "", "a"}, {"/a//.b", "/a//", "/a", ".b", "/a//.b"},
  };
  for (const auto &[path, directory, bare, name, stripped] : rows) {
    char *dir, *base, *pathName;
    File_SplitName(path, nullptr, &dir, &base);
    File_GetPathName(path, &pathName, nullptr);
    EXPECT_EQ(directory, Owned(dir));
    EXPECT_EQ(name, Owned(base));
    EXPECT_EQ(bare, Owned(pathName));
    EXPECT_EQ(stripped, Owned(File_StripSlashes(path)));
    EXPECT_EQ(stripped + std::string("/x/"), Owned(File_PathJoin(path, "//x/")));
    EXPECT_EQ(stripped + std::string("/"), Owned(File_PathJoin(path, "")));
  }
}

TEST(FullPath, IsThatOfRealpathAsFarAsThePathExists) {
  const ScratchDir dir;
  fs::create_directories(dir.Path("real/sub"));
  dir.Write("real/file", "");
  fs::create_symlink("real/sub/..", dir.Path("link"));
  fs::create_symlink("gone", dir.Path("dangling"));
  fs::current_path(dir.Path("real"));
  for (const std::string path : {"", "./sub/../file", "missing", "a/b/c", "../link/sub/x/y",
                                 "file/x", "//", "//missing/x", "../link//file"}) {
    EXPECT_EQ(OutputOf({"/usr/bin/realpath", "-m", path.empty() ? "." : path}),
              Owned(File_FullPath(path.c_str())) + "\n");
  }
  // Not realpath's way: what does not exist stays as it stands, and so does a link to nothing.
  EXPECT_EQ(dir.Path("dangling"), Owned(File_FullPath("../dangling")));
  EXPECT_EQ(dir.Path("real/x/..//y/"), Owned(File_FullPath("x/..//y/")));
  // What exists cannot be resolved either.
  const SysFault fault("realpath", 2, EIO);
  EXPECT_EQ("/missing/x/", Owned(File_FullPath("//missing///x//")));
}

TEST(Cwd, MayBeLongOrGone) {
  const ScratchDir dir;
  fs::current_path(dir.Path());
  std::string expected = dir.Path();
  for (const std::string name(250, 'd'); expected.size() < 3500; expected += "/" + name) {
    ASSERT_TRUE(mkdir(name.c_str(), 0700) == 0 && chdir(name.c_str()) == 0);
  }
  EXPECT_EQ(expected, Owned(File_Cwd("")));
  fs::remove_all(dir.Path());
  CaptureOutput([] { EXPECT_EQ("(null)", Owned(File_FullPath("x"))); });
  EXPECT_EQ(ENOENT, errno);
  fs::current_path("/");
}

TEST(CreateIfAbsent, AcceptsDirectoriesAsTheyStandAndNothingElse) {
  const ScratchDir dir;
  fs::create_directory(dir.Path("there"));
  ASSERT_EQ(0, chmod(dir.Path("there").c_str(), 0511));
  dir.Write("file", "");
  fs::create_symlink("there", dir.Path("link"));
  fs::create_symlink("gone", dir.Path("dangling"));
  std::string outcomes;
  for (const char *name : {"new", "there", "link", "file", "dangling", "no/x", "file/x"}) {
    const std::string path = dir.Path(name);
    outcomes += " " + OkOrErrno(File_CreateDirectoryIfAbsent(path.c_str(), 0700));
    if (File_IsRegularFile(path.c_str())) outcomes += "(file)";
    if (File_IsEmptyDirectory(path.c_str())) outcomes += "(empty)";
  }
  EXPECT_EQ(" ok(empty) ok(empty) ok(empty) ENOTDIR(file) ENOENT ENOENT ENOTDIR", outcomes);
  const mode_t mask = umask(0);
  ASSERT_TRUE(File_CreateDirectory(dir.Path("a").c_str()) &&
              File_EnsureDirectory(dir.Path("b").c_str()));
  umask(mask);
  for (const auto &[name, wanted] : {std::pair{"there", 0511}, {"a", 0777}, {"b", 0777}}) {
    int mode = 0;
    EXPECT_TRUE(File_GetFilePermissions(dir.Path(name).c_str(), &mode) &&
                mode == (S_IFDIR | wanted));
  }
}

TEST(CreateHierarchy, MakesWhatIsMissingAndTellsTheFirst) {
  const ScratchDir dir;
  const auto create = [](const std::string &path) {
    char *topmost;
    const bool ok = File_CreateDirectoryHierarchyEx(path.c_str(), 0750, &topmost);
    const std::string outcome = OkOrErrno(ok);
    return outcome + " " + Owned(topmost);
  };
  EXPECT_EQ("ok " + dir.Path("a"), create(dir.Path("a//b/c//")));
  EXPECT_TRUE(fs::is_directory(dir.Path("a/b/c")));
  EXPECT_EQ("ok (null)ok (null)ok (null)", create(dir.Path("a/b/")) + create("/") + create(""));
  CaptureOutput([&] { EXPECT_EQ("ENOTDIR (null)", create(dir.Write("a/f", "") + "/g")); });
}

TEST(List, HasEachNameOnceOrNone) {
  const ScratchDir dir;
  FileNames names;
  std::set<std::string> expected;
  for (int i = 0; i < 400; i++) expected.insert("name" + std::to_string(i));
  for (const std::string &name : expected) dir.Write(name, "");
  EXPECT_TRUE(names.List(dir.Path().c_str()));
  EXPECT_EQ(expected, std::set<std::string>(names.begin(), names.end()));
  const SysFault fault("readdir", 100, EIO);
  EXPECT_TRUE(!names.List(dir.Path().c_str()) && errno == EIO && names.Count() == 0);
  // Names that are not UTF-8 are one, which is not removed.
  for (const char *name : {"bad\xFF", "b\xC3"}) dir.Write(name, "");
  const std::string log = CaptureOutput([&] {
    EXPECT_EQ("ENOTEMPTY", OkOrErrno(File_DeleteDirectoryTree(dir.Path().c_str())));
    EXPECT_TRUE(names.List(dir.Path().c_str()) && names.Count() == 1);
  });
  EXPECT_NE(std::string::npos, log.find("' in directory 'bad\\xFF' cannot be converted to UTF8\n"));
  EXPECT_STREQ("\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD", names[0]);
}

}  // namespace
