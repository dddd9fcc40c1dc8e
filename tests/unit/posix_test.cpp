// posix_test.cpp -- canonical paths and link targets.

#include "posix.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "heap.h"
#include "tests/support/scratchDir.h"

namespace {

using PathCall = char *(*)(const char *);

// The result; on success errno is left alone, on failure it is the result.
std::string Outcome(PathCall call, const std::string &path) {
  errno = ETXTBSY;
  const HeapStr result(call(path.c_str()));
  EXPECT_EQ(result == nullptr, errno != ETXTBSY) << path;
  return result == nullptr ? strerrorname_np(errno) : result.get();
}

TEST(Posix, PathsAndWhyThereIsNone) {
  const ScratchDir dir;
  const std::string bad = dir.Write("bad\xFF", ""), file = dir.Write("f\xC3\xAFle", "");
  mkdir(dir.Path("sub").c_str(), 0700);
  for (const auto &[target, link] : {std::pair{"sub/../f\xC3\xAFle", "link"},
                                     {"link", "link2"},
                                     {"loop", "loop"},
                                     {"bad\xFF", "toBad"}}) {
    ASSERT_EQ(0, symlink(target, dir.Path(link).c_str()));
  }
  const struct {
    PathCall call;
    std::string path, outcome;
  } rows[] = {
      {Posix_RealPath, dir.Path("sub/.././/link2"), file},
      {Posix_RealPath, "", "ENOENT"},
      {Posix_RealPath, dir.Path("loop"), "ELOOP"},
      {Posix_RealPath, bad, "ERANGE"},
      {Posix_RealPath, dir.Path("toBad"), "EILSEQ"},
      {Posix_ReadLink, dir.Path("link2"), "link"},
      {Posix_ReadLink, file, "EINVAL"},
      {Posix_ReadLink, dir.Path("toBad"), "EILSEQ"},
  };
  for (const auto &row : rows) EXPECT_EQ(row.outcome, Outcome(row.call, row.path)) << row.path;
}

TEST(Posix, LinkTargetsHaveAnyLength) {
  const ScratchDir dir;
  // Around the first buffer and its first growth, and the longest that a link can have.
  for (const size_t length : {1U, 2047U, 2048U, 3071U, 3072U, 4095U}) {
    std::string target(length, 't');
    for (size_t i = 200; i < length; i += 200) target[i] = '/';
    const std::string link = dir.Path(std::to_string(length));
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
    EXPECT_EQ(target, Outcome(Posix_ReadLink, link));
  }
}

}  // namespace
