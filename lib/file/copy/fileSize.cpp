// fileSize.cpp -- how large files and trees are.
//
// Idea:       links are followed, so many ways may lead to one directory, and one way back into it.
//             A directory is added up once; where it is met again its sum is known, and while it is
//             still being added up it counts as 0.  So the time is linear.
// Tests: tests/unit/fileTree_test.cpp

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>

#include "lib/file/copy/fileCopyInt.h"
#include "lib/file/raw/fileIOInt.h"
#include "lib/public/fd.h"
#include "lib/public/file.h"

namespace {

// Without waiting: a FIFO may have no writer.
constexpr int kOpenFlags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;

int64_t Sum(int64_t a, int64_t b) {
  int64_t sum;
  return __builtin_add_overflow(a, b, &sum) ? INT64_MAX : sum;
}

class TreeSize {
  const bool followLinks_;
  FileDescent way_;
  FileLevels levels_;     // the tally of each is the sum so far
  FileIdentityMap sums_;  // of the directories so far

  [[nodiscard]] int64_t SizeOfEntry(const char *name);

 public:
  explicit TreeSize(bool followLinks) : followLinks_(followLinks), way_(followLinks) {}
  [[nodiscard]] int64_t Run(Fd top, const char *path);
};

// What the entry adds to the level at hand now; a new directory becomes the level at hand.
int64_t TreeSize::SizeOfEntry(const char *name) {
  Fd fd(openat(way_.Here(), name, kOpenFlags | (followLinks_ ? 0 : O_NOFOLLOW)));
  struct stat status;
  if (!fd || fstat(fd.Get(), &status) != 0) return 0;
  if (!S_ISDIR(status.st_mode)) return status.st_size;
  int64_t sum = 0;
  const FileIdentity identity = FileIdentity::Of(status);
  if (sums_.Get(identity, &sum)) return sum;
  FileNames names;
  if (names.ListAt(fd.Get(), name) && way_.Down(std::move(fd), name) == 0) {
    sums_.Set(identity, 0);
    levels_.Push(std::move(names));
  }
  return 0;
}

int64_t TreeSize::Run(Fd top, const char *path) {
  FileNames names;
  if (!names.ListAt(top.Get(), path) || way_.Begin(std::move(top), path) != 0) return -1;
  sums_.Set(way_.Identity(), 0);
  levels_.Push(std::move(names));
  for (;;) {
    FileLevel &level = levels_.Last();
    if (const char *const name = level.Next(); name != nullptr) {
      level.tally = Sum(level.tally, SizeOfEntry(name));
      continue;
    }
    const int64_t sum = level.tally;
    sums_.Set(way_.Identity(), sum);
    levels_.Pop();
    if (levels_.Empty()) return sum;
    if (way_.Up() != 0) return -1;
    levels_.Last().tally = Sum(levels_.Last().tally, sum);
  }
}

}  // namespace

int64_t FileSizeOfTree(Fd top, const char *path, bool followLinks) {
  return TreeSize(followLinks).Run(std::move(top), path);
}

int64_t File_GetSizeEx(const char *path) {
  if (path == nullptr) {
    errno = EFAULT;
    return -1;
  }
  Fd fd(open(path, kOpenFlags));
  struct stat status;
  if (!fd || fstat(fd.Get(), &status) != 0) {
    static_cast<void>(FileIOReport("FILE:open error on %s: %s\n", path));
    return -1;
  }
  return S_ISDIR(status.st_mode) ? FileSizeOfTree(std::move(fd), path, true) : status.st_size;
}
