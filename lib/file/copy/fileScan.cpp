// fileScan.cpp -- which files a tree consists of.
//
// Invariants: a directory is entered once, so links that lead back do no harm; nothing but directories
//             is opened.
// Tests: tests/unit/fileTree_test.cpp

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "lib/file/copy/fileCopyInt.h"
#include "lib/public/fd.h"

namespace {

class TreeScan {
  const bool followLinks_;
  FileDescent way_;
  FileLevels levels_;
  FileIdentityMap *const found_;

  [[nodiscard]] int Visit(const char *name);
  [[nodiscard]] int Enter(Fd dir, const char *name);

 public:
  TreeScan(bool followLinks, FileIdentityMap *found)
      : followLinks_(followLinks), way_(followLinks), found_(found) {}
  [[nodiscard]] int Run(Fd top, const char *path);
};

int TreeScan::Enter(Fd dir, const char *name) {
  FileIdentity identity;
  if (!dir || FileIdentity::Of(dir.Get(), &identity) != 0) return errno;
  if (found_->Get(identity)) return 0;
  FileNames names;
  if (!names.ListAt(dir.Get(), way_.PathOf(name).get())) return errno;
  found_->Set(identity);
  levels_.Push(std::move(names));
  return way_.Down(std::move(dir), name);
}

int TreeScan::Visit(const char *name) {
  const int dir = way_.Here();
  struct stat status;
  if (fstatat(dir, name, &status, followLinks_ ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
    // A link to nothing, or an entry that is gone, is no file.
    return errno == ENOENT || errno == ELOOP ? 0 : errno;
  }
  if (S_ISREG(status.st_mode)) found_->Set(FileIdentity::Of(status));
  if (!S_ISDIR(status.st_mode)) return 0;
  return Enter(Fd(openat(dir, name, kFileOpenDirectory | (followLinks_ ? 0 : O_NOFOLLOW))), name);
}

int TreeScan::Run(Fd top, const char *path) {
  FileNames names;
  if (!names.ListAt(top.Get(), path) || way_.Begin(std::move(top), path) != 0) return errno;
  found_->Set(way_.Identity());
  levels_.Push(std::move(names));
  for (;;) {
    if (const char *const name = levels_.Last().Next(); name != nullptr) {
      const int error = Visit(name);
      if (error != 0) return error;
      continue;
    }
    levels_.Pop();
    if (levels_.Empty()) return 0;
    const int error = way_.Up();
    if (error != 0) return error;
  }
}

}  // namespace

int FileScanTree(Fd top, const char *path, bool followLinks, FileIdentityMap *found) {
  return TreeScan(followLinks, found).Run(std::move(top), path);
}
