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

bool Copy(const std::string &from, const std::string &to) {
  const Fd source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  const Fd target(open(to.c_str(), O_RDWR | O_CLOEXEC));
  return Platform_CopyFileWithMetadata(source.Get(), target.Get());
}

TEST(FileCopy, HasDataAndMetadataAndNothingElse) {
  ScratchDir dir;
  const std::string content = std::string(300'000, 'x') + '\0' + "end";
  const std::string from = dir.Write("from", content);
  const std::string to = dir.Write("to", content + content);
  if (setxattr(from.c_str(), "user.mine", "value", 5, 0) != 0 && errno == ENOTSUP) {
    SKIP_FOR_WANT_OF("extended attributes of users");
  }
  ASSERT_EQ(0, setxattr(from.c_str(), "user.empty", "", 0, 0));
  ASSERT_EQ(0, setxattr(to.c_str(), "user.old", "value", 5, 0));
  ASSERT_EQ(0, setxattr(to.c_str(), "user.mine", "other", 5, 0));
  const bool root = geteuid() == 0;
  const uid_t user = root ? 12345 : geteuid();
  const gid_t group = root ? 54321 : getegid();
  ASSERT_EQ(0, chown(from.c_str(), user, group));
  ASSERT_EQ(0, chmod(from.c_str(), 04510));
  const timespec times[] = {{1'000'000'000, 123'456'789}, {1'100'000'000, 987'654'321}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, from.c_str(), times, 0));

  ASSERT_TRUE(Copy(from, to));
  struct stat copy;
  ASSERT_EQ(0, stat(to.c_str(), &copy));
  EXPECT_EQ(mode_t{04510}, copy.st_mode & ALLPERMS);
  EXPECT_EQ(user, copy.st_uid);
  EXPECT_EQ(group, copy.st_gid);
  EXPECT_EQ(times[0].tv_nsec, copy.st_atim.tv_nsec);
  EXPECT_EQ(times[1].tv_sec, copy.st_mtim.tv_sec);
  EXPECT_EQ(times[1].tv_nsec, copy.st_mtim.tv_nsec);
  EXPECT_EQ("value", Attribute(to, "user.mine"));
  EXPECT_EQ("", Attribute(to, "user.empty"));
  EXPECT_EQ("none", Attribute(to, "user.old"));
  EXPECT_EQ(content, ReadFile(to));
}

TEST(FileCopy, ReadsWhatHasNoSizeAndRefusesWhatIsNoFile) {
  ScratchDir dir;
  const std::string to = dir.Write("to", std::string(100'000, 'x'));
  ASSERT_TRUE(Copy("/proc/self/mounts", to));  // across file systems, its size said to be 0
  EXPECT_EQ(ReadFile("/proc/self/mounts"), ReadFile(to));
  ASSERT_FALSE(Copy("/dev/null", to));
  EXPECT_EQ(ENOTSUP, errno);
  EXPECT_EQ(ReadFile("/proc/self/mounts"), ReadFile(to));
  const Fd source(open(to.c_str(), O_RDONLY | O_CLOEXEC));
  const Fd readOnly(open(dir.Write("readOnly", "x").c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_FALSE(Platform_CopyFileWithMetadata(source.Get(), readOnly.Get()));
  EXPECT_EQ(EBADF, errno);
}

}  // namespace
