// posix_test.cpp -- canonical paths and link targets.

#include "posix.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <initializer_list>
#include <string>

#include "heap.h"
#include "tests/support/scratchDir.h"

namespace {

// In place of errno, to see whether it survives.
constexpr int kMarker = ETXTBSY;

using PathCall = char *(*)(const char *);

void ExpectPath(const std::string &expected, PathCall call, const std::string &path) {
  errno = kMarker;
  const HeapStr result(call(path.c_str()));
  EXPECT_EQ(kMarker, errno) << path;
  EXPECT_STREQ(expected.c_str(), result.get()) << path;
}

void ExpectErrno(int expected, PathCall call, const std::string &path) {
  errno = kMarker;
  const HeapStr result(call(path.c_str()));
  EXPECT_EQ(expected, errno) << path;
  EXPECT_EQ(nullptr, result) << path;
}

TEST(RealPath, ResolvesLinksAndDots) {
  const ScratchDir dir;
  const std::string root = std::filesystem::canonical(dir.Path());
  dir.Write("fïle", "");
  mkdir(dir.Path("sub").c_str(), 0700);
  ASSERT_EQ(0, symlink("sub/../fïle", dir.Path("link").c_str()));
  ASSERT_EQ(0, symlink("link", dir.Path("link2").c_str()));
  ExpectPath(root + "/fïle", Posix_RealPath, dir.Path("sub/.././/link2"));
  ExpectPath("/", Posix_RealPath, "/..");
}

TEST(RealPath, LeavesTheErrnoOfWhatFailed) {
  const ScratchDir dir;
  dir.Write("file", "");
  ASSERT_EQ(0, symlink("loop", dir.Path("loop").c_str()));
  dir.Write("bad\xFF", "");
  ASSERT_EQ(0, symlink("bad\xFF", dir.Path("toBad").c_str()));
  ExpectErrno(ENOENT, Posix_RealPath, "");
  ExpectErrno(ENOENT, Posix_RealPath, dir.Path("missing"));
  ExpectErrno(ENOTDIR, Posix_RealPath, dir.Path("file/x"));
  ExpectErrno(ELOOP, Posix_RealPath, dir.Path("loop"));
  ExpectErrno(ERANGE, Posix_RealPath, dir.Path("bad\xFF"));
  ExpectErrno(EILSEQ, Posix_RealPath, dir.Path("toBad"));
}

TEST(ReadLink, ReadsTargetsOfAnyLength) {
  const ScratchDir dir;
  // Around the first buffer and its first growth, and the longest that a link can have.
  for (const size_t length : std::initializer_list<size_t>{1, 2047, 2048, 2049, 3071, 3072, 4095}) {
    std::string target(length, 't');
    for (size_t i = 200; i < length; i += 200) target[i] = '/';
    const std::string link = dir.Path("link" + std::to_string(length));
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
    ExpectPath(target, Posix_ReadLink, link);
  }
}

TEST(ReadLink, LeavesTheErrnoOfWhatFailed) {
  const ScratchDir dir;
  dir.Write("file", "");
  ASSERT_EQ(0, symlink("bad\xFF", dir.Path("toBad").c_str()));
  ExpectErrno(EINVAL, Posix_ReadLink, dir.Path("file"));
  ExpectErrno(ENOENT, Posix_ReadLink, dir.Path("missing"));
  ExpectErrno(ERANGE, Posix_ReadLink, dir.Path("bad\xFF"));
  ExpectErrno(EILSEQ, Posix_ReadLink, dir.Path("toBad"));
}

}  // namespace
