// fileDelete.cpp -- removing a directory with all that is below it.
//
// Idea:   the tree may be changed by others meanwhile, and this runs as root.  So nothing below the
//         top is ever looked up by path: each step names one entry of a directory that is open, and
//         a directory is entered only as one, never through a link that took its place.
// Holds:  1. At most two directories stay open, however deep the tree is: the one at hand and the
//            one above it.  The way further up is "..", and what that leads to must be the
//            directory that the way down led through; who moves a directory away while it is
//            emptied ends the deletion, but does not lead it elsewhere.
//         2. The way is a list on the heap, so the depth is bounded by neither the stack nor the
//            length of a path.
//         3. The names of a directory are read before the first is removed: what readdir reports
//            of a directory that changes is anybody's guess.
// Errors: every entry is tried, whatever happened to those before it.  A directory that has a
//         failure below it is not removed, and tells the one above it of the last one.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "lib/file/fileInt.h"
#include "lib/public/dynbuf.h"
#include "lib/public/fd.h"
#include "lib/public/file.h"
#include "lib/public/log.h"

namespace {

bool IdentityOf(int fd, FileIdentity *identity) {
  struct stat status;
  if (fstat(fd, &status) != 0) return false;
  *identity = FileIdentity::Of(status);
  return true;
}

// A directory on the way from the top to the one at hand.
struct Level {
  Level *above;
  FileIdentity identity;
  size_t pathLength;
  FileNames names;
  int next = 0;   // in names
  int error = 0;  // the last of its entries

  const char *LastName() const { return names[next - 1]; }
};

class TreeDeletion {
  ScopedDynBuf path_;  // a NUL-terminated path: of the level at hand or an entry of it
  Fd here_;            // the level's directory
  Fd above_;           // the one above, if it is still open
  Level *level_ = nullptr;

  const char *PathOfEntry(const char *name);
  void AppendToPath(const char *text, size_t length);
  [[nodiscard]] int Enter(Fd dir);
  void Descend(const char *name);
  void DeleteEntry(const char *name);
  [[nodiscard]] int Ascend();
  [[nodiscard]] int LeaveAndRemove();
  void DropLevel();

 public:
  TreeDeletion() = default;
  TreeDeletion(const TreeDeletion &) = delete;
  TreeDeletion &operator=(const TreeDeletion &) = delete;
  ~TreeDeletion() {
    while (level_ != nullptr) DropLevel();
  }

  // Errno-style: removes all that is below the directory `path`.
  [[nodiscard]] int Run(const char *path);
};

void TreeDeletion::AppendToPath(const char *text, size_t length) {
  DynBuf_SafeAppend(&path_, text, length, "lib/file/fileDelete", __LINE__);
}

// Good until the next call, and as the path of the level that is entered next.
const char *TreeDeletion::PathOfEntry(const char *name) {
  path_.size = level_->pathLength;
  AppendToPath("/", 1);
  AppendToPath(name, strlen(name) + 1);
  return path_.data;
}

void TreeDeletion::DropLevel() {
  Level *const level = level_;
  level_ = level->above;
  level->~Level();
  HeapFreer()(level);
}

// Makes `dir`, whose path is in path_, the level at hand.  Errno-style; on failure nothing changed.
int TreeDeletion::Enter(Fd dir) {
  level_ = new (Heap_SafeMalloc(sizeof(Level))) Level{level_, {}, path_.size - 1, {}};
  if (!IdentityOf(dir.Get(), &level_->identity) || !level_->names.ListAt(dir.Get(), path_.data)) {
    DropLevel();
    return errno;
  }
  above_ = std::move(here_);
  here_ = std::move(dir);
  return 0;
}

void TreeDeletion::Descend(const char *name) {
  PathOfEntry(name);
  Fd dir(openat(here_.Get(), name, kFileOpenDirectory | O_NOFOLLOW));
  if (!dir && errno == ENOENT) return;
  Level *const parent = level_;
  const int error = dir ? Enter(std::move(dir)) : errno;
  if (error != 0) parent->error = error;
}

void TreeDeletion::DeleteEntry(const char *name) {
  struct stat status;
  if (fstatat(here_.Get(), name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return;
    level_->error = errno;
    Log("FILE: %s: Lstat of '%s' failed, errno = %d\n", "FileDeleteDirectoryTree",
        PathOfEntry(name), level_->error);
    return;
  }
  if (S_ISDIR(status.st_mode)) return Descend(name);
  if (unlinkat(here_.Get(), name, 0) != 0 && errno != ENOENT) level_->error = errno;
}

// Makes the directory above the one at hand.  Errno-style.
int TreeDeletion::Ascend() {
  if (above_) {
    here_ = std::move(above_);
    return 0;
  }
  Fd parent(openat(here_.Get(), "..", kFileOpenDirectory));
  FileIdentity identity;
  if (!parent || !IdentityOf(parent.Get(), &identity)) return errno;
  if (identity != level_->above->identity) return ESTALE;
  here_ = std::move(parent);
  return 0;
}

// Goes up and removes the directory that was left.  An error is one that leaves no way up.
int TreeDeletion::LeaveAndRemove() {
  const int lost = Ascend();
  if (lost != 0) return lost;
  int error = level_->error;
  DropLevel();
  if (error == 0 && unlinkat(here_.Get(), level_->LastName(), AT_REMOVEDIR) != 0) error = errno;
  if (error != 0) level_->error = error;
  return 0;
}

int TreeDeletion::Run(const char *path) {
  Fd top(open(path, kFileOpenDirectory));
  if (!top) return errno;
  AppendToPath(path, strlen(path) + 1);
  int error = Enter(std::move(top));
  while (error == 0) {
    if (level_->next < level_->names.Count()) {
      DeleteEntry(level_->names[level_->next++]);
    } else if (level_->above != nullptr) {
      error = LeaveAndRemove();
    } else {
      return level_->error;
    }
  }
  return error;
}

}  // namespace

bool FileDeleteDirectoryTree(const char *path, bool contentOnly) {
  int error = FileAttributes(path, nullptr);
  if (error == ENOENT || error == ENOTDIR) {
    error = 0;
  } else if (path != nullptr) {
    error = TreeDeletion().Run(path);
    if (error == 0 && !contentOnly && rmdir(path) != 0) error = errno;
  }
  errno = error;
  return error == 0;
}

bool File_DeleteDirectoryTree(const char *path) {
  return FileDeleteDirectoryTree(path, false);
}

bool File_DeleteDirectoryContent(const char *path) {
  return FileDeleteDirectoryTree(path, true);
}
