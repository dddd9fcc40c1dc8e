// fileDelete.cpp -- removing a directory with all that is below it.
//
// Idea:       others may change the tree meanwhile, and this runs as root.  So nothing below the
//             top is ever looked up by path: each step names one entry of an open directory, and a
//             directory is entered only as one, never through a link that took its place.
// Invariants: 1. The names of a directory are read before the first is removed: what readdir
//             reports of a directory that changes is unspecified.
//             2. Every entry is tried, whatever happened to those before it.  A directory with a
//             failure below it is not removed, and passes the last error on to its parent.
//             3. What is already gone is no failure, so two deletions of one tree complete each
//             other.
// Tests: tests/unit/fileTree_test.cpp

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "lib/file/fileDescent.h"
#include "lib/file/fileInt.h"
#include "lib/public/fd.h"
#include "lib/public/file.h"
#include "lib/public/log.h"

namespace {

class TreeDeletion {
  FileDescent way_{false};
  FileLevels levels_;  // the tally of each is the last error of its entries

  [[nodiscard]] int Enter(Fd dir, const char *name);
  [[nodiscard]] int DeleteEntry(const char *name, unsigned char type);
  [[nodiscard]] int LeaveAndRemove();

 public:
  // Errno-style: removes all that is below the directory `path`.
  [[nodiscard]] int Run(const char *path, const FileIdentity *expected);
};

// The errno of a call that may find its object gone.
int ErrnoUnlessGone() {
  return errno == ENOENT ? 0 : errno;
}

int TreeDeletion::Enter(Fd dir, const char *name) {
  FileNames names;
  if (!names.ListAt(dir.Get(), way_.PathOf(name).get())) return ErrnoUnlessGone();
  const int error = way_.Down(std::move(dir), name);
  if (error == 0) levels_.Push(std::move(names));
  return error;
}

int TreeDeletion::DeleteEntry(const char *name, unsigned char type) {
  const int dir = way_.Here();
  if (type != DT_DIR && type != DT_UNKNOWN) {
    if (unlinkat(dir, name, 0) == 0) return 0;
    // What hosts say of an entry that has become a directory meanwhile.
    if (errno != EISDIR && errno != EPERM) return ErrnoUnlessGone();
  }
  struct stat status;
  if (fstatat(dir, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    const int error = ErrnoUnlessGone();
    if (error != 0) {
      Log("FILE: %s: Lstat of '%s' failed, errno = %d\n", "FileDeleteDirectoryTree",
          way_.PathOf(name).get(), error);
    }
    return error;
  }
  if (!S_ISDIR(status.st_mode)) return unlinkat(dir, name, 0) == 0 ? 0 : ErrnoUnlessGone();
  Fd below(openat(dir, name, kFileOpenDirectory | O_NOFOLLOW));
  return below ? Enter(std::move(below), name) : ErrnoUnlessGone();
}

// Goes up from a directory that has been emptied as far as possible, and removes it.  Errno-style;
// an error means that there is no way up.
int TreeDeletion::LeaveAndRemove() {
  int64_t error = levels_.Last().tally;
  levels_.Pop();
  FileLevel &parent = levels_.Last();
  const int lost = way_.Up();
  if (lost == ENOENT) parent.next = parent.names.Count();  // removed by another process
  if (lost != 0) return lost == ENOENT ? 0 : lost;
  if (error == 0 && unlinkat(way_.Here(), parent.LastName(), AT_REMOVEDIR) != 0) {
    error = ErrnoUnlessGone();
  }
  if (error != 0) parent.tally = error;
  return 0;
}

int TreeDeletion::Run(const char *path, const FileIdentity *expected) {
  Fd top(open(path, kFileOpenDirectory));
  if (!top) return ErrnoUnlessGone();
  FileNames names;
  if (!names.ListAt(top.Get(), path)) return ErrnoUnlessGone();
  int error = way_.Begin(std::move(top), path);
  if (error == 0 && expected != nullptr && way_.Identity() != *expected) error = ESTALE;
  if (error != 0) return error;
  levels_.Push(std::move(names));
  for (;;) {
    FileLevel &level = levels_.Last();
    if (const char *const name = level.Next(); name != nullptr) {
      error = DeleteEntry(name, level.names.TypeOf(level.next - 1));
      if (error != 0) level.tally = error;
    } else if (level.above == nullptr) {
      return static_cast<int>(level.tally);
    } else if ((error = LeaveAndRemove()) != 0) {
      return error;
    }
  }
}

}  // namespace

bool FileDeleteDirectoryTree(const char *path, bool contentOnly, const FileIdentity *expected) {
  int error = FileAttributes(path, nullptr);
  if (error == ENOENT || error == ENOTDIR) {
    error = 0;
  } else if (path != nullptr) {
    error = TreeDeletion().Run(path, expected);
    if (error == 0 && !contentOnly && rmdir(path) != 0) error = ErrnoUnlessGone();
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
