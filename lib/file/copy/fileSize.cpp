// fileSize.cpp -- how large files and trees are.
//
// Holds:  links are followed, so a tree may lead back into itself; a directory that is being added up
//         already counts as 0 then.  The chain of those stands in the frames of the recursion.
// Tests:  tests/unit/fileTree_test.cpp

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>

#include "lib/file/fileInt.h"
#include "lib/file/raw/fileIOInt.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/file.h"

namespace {

// A directory that is being added up, and those above it.
struct Level {
  const Level *above;
  FileIdentity identity;
};

bool IsOpenLevel(const Level *level, const FileIdentity &identity) {
  while (level != nullptr && level->identity != identity) level = level->above;
  return level != nullptr;
}

int64_t SizeOf(const char *path, const Level *above);

int64_t SizeOfFile(const char *path) {
  FileIODescriptor fd;
  // Without waiting: a FIFO may have no writer.
  if (FileIOOpenUnlocked(&fd, path, FILEIO_ACCESS_READ | FILEIO_FLAG_NONBLOCK, FILEIO_OPEN, 0600) !=
      FILEIO_SUCCESS) {
    return -1;
  }
  const int64_t size = FileIO_GetSize(&fd);
  const ErrnoKeeper keeper;
  FileIOCloseUnlocked(&fd);
  return size;
}

int64_t SizeOfDirectory(const char *path, const Level &level) {
  FileNames names;
  if (!names.List(path)) return -1;
  int64_t sum = 0;
  for (const char *const name : names) {
    const HeapStr child(File_PathJoin(path, name));
    const int64_t size = SizeOf(child.get(), &level);
    if (size > 0 && __builtin_add_overflow(sum, size, &sum)) return INT64_MAX;
  }
  return sum;
}

int64_t SizeOf(const char *path, const Level *above) {
  struct stat status;
  if (stat(path, &status) != 0) return -1;
  if (!S_ISDIR(status.st_mode)) return SizeOfFile(path);
  const FileIdentity identity = FileIdentity::Of(status);
  if (IsOpenLevel(above, identity)) return 0;
  return SizeOfDirectory(path, {above, identity});
}

}  // namespace

int64_t File_GetSizeEx(const char *path) {
  if (path != nullptr) return SizeOf(path, nullptr);
  errno = EFAULT;
  return -1;
}
