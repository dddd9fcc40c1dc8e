// signedExtent.cpp -- counts the bytes and entries of a file or a bundle.
// Tests: tests/unit/darwin_test.cpp

#include "platform/darwin/signedExtent.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <string_view>

#include "lib/public/dirStream.h"

namespace {

constexpr uint64_t kMaxEntries = 100'000;
constexpr int kMaxDepth = 32;  // nested directories; each one needs two descriptors
constexpr int kDirectory = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

bool Refuse(int error) {
  errno = error;
  return false;
}

bool CountBelow(int dir, int depth, PlatformSignedExtent *extent);

bool CountEntry(int dir, const char *name, int depth, PlatformSignedExtent *extent) {
  struct stat info;
  if (++extent->entries > kMaxEntries) return Refuse(EFBIG);
  if (fstatat(dir, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (S_ISREG(info.st_mode)) extent->bytes += static_cast<uint64_t>(info.st_size);
  if (!S_ISDIR(info.st_mode)) return true;
  const Fd below(openat(dir, name, kDirectory));
  return below && CountBelow(below.Get(), depth + 1, extent);
}

bool CountBelow(int dir, int depth, PlatformSignedExtent *extent) {
  if (depth > kMaxDepth) return Refuse(ELOOP);
  // Opened again, so that it has its own offset.
  const DirStream stream = DirStreamOf(Fd(openat(dir, ".", kDirectory)));
  if (stream == nullptr) return false;
  for (;;) {
    errno = 0;
    const dirent *const entry = readdir(stream.get());
    if (entry == nullptr) return errno == 0;
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (!CountEntry(dir, entry->d_name, depth, extent)) return false;
  }
}

}  // namespace

bool SignedExtentOf(int item, PlatformSignedExtent *extent) {
  struct stat info;
  if (fstat(item, &info) != 0) return false;
  *extent = {};
  if (S_ISDIR(info.st_mode)) return CountBelow(item, 1, extent);
  extent->bytes = static_cast<uint64_t>(info.st_size);
  return true;
}
