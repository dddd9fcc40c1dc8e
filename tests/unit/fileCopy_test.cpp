// fileCopy_test.cpp -- a copy of an open file has everything of it.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <string>

#include "fd.h"
#include "platform/files.h"
#include "tests/support/sandboxSkip.h"
#include "tests/support/scratchDir.h"

namespace {

std::string Attribute(const std::string &path, const char *name) {
  char value[64];
  const ssize_t n = getxattr(path.c_str(), name, value, sizeof value);
  return n < 0 ? "none" : std::string(value, static_cast<size_t>(n));
}

bool Copy(const std::string &from, const std::string &to, int mode = O_RDWR) {
  const Fd source(open(from.c_str(), O_RDONLY)), target(open(to.c_str(), mode));
  return Platform_CopyFileWithMetadata(source.Get(), target.Get());
}

TEST(FileCopy, HasDataAndMetadataAndNothingElse) {
  ScratchDir dir;
  const std::string content = std::string(300'000, 'x') + '\0' + "end";
  const std::string from = dir.Write("from", content), to = dir.Write("to", content + content);
  if (setxattr(from.c_str(), "user.mine", "value", 5, 0) != 0 && errno == ENOTSUP) {
    SKIP_FOR_WANT_OF("extended attributes of users");
  }
  ASSERT_EQ(0, setxattr(from.c_str(), "user.empty", "", 0, 0));
  ASSERT_EQ(0, setxattr(to.c_str(), "user.old", "value", 5, 0));
  ASSERT_EQ(0, setxattr(to.c_str(), "user.mine", "other", 5, 0));
  ASSERT_TRUE(geteuid() != 0 || chown(from.c_str(), 12345, 54321) == 0);
  ASSERT_EQ(0, chmod(from.c_str(), 04510));
  const timespec times[] = {{1'000'000'000, 123'456'789}, {1'100'000'000, 987'654'321}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, from.c_str(), times, 0));
  struct stat original, copy;
  ASSERT_EQ(0, stat(from.c_str(), &original));

  ASSERT_TRUE(Copy(from, to));
  ASSERT_EQ(0, stat(to.c_str(), &copy));
  EXPECT_EQ(original.st_mode, copy.st_mode);
  EXPECT_EQ(original.st_uid, copy.st_uid);
  EXPECT_EQ(original.st_gid, copy.st_gid);
  EXPECT_EQ(times[0].tv_nsec, copy.st_atim.tv_nsec);
  EXPECT_EQ(times[1].tv_nsec, copy.st_mtim.tv_nsec);
  EXPECT_EQ("value", Attribute(to, "user.mine"));
  EXPECT_EQ("", Attribute(to, "user.empty"));
  EXPECT_EQ("none", Attribute(to, "user.old"));
  EXPECT_EQ(content, ReadFile(to));

  // Across file systems, with a size said to be 0; and what is no file, or cannot be written.
  ASSERT_TRUE(Copy("/proc/self/mounts", to));
  EXPECT_FALSE(Copy("/dev/null", to));
  EXPECT_EQ(ENOTSUP, errno);
  EXPECT_EQ(ReadFile("/proc/self/mounts"), ReadFile(to));
  EXPECT_FALSE(Copy(from, to, O_RDONLY));
  EXPECT_EQ(EBADF, errno);
}

}  // namespace
