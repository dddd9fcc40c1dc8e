// fileInt.h -- what the modules of the file library share among themselves.
//
// Paths and threads are as in file.h.  An errno-style result is 0, or the errno of the call that
// failed, which is also left in errno.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <utility>

#include "lib/public/errnoKeeper.h"
#include "lib/public/file.h"
#include "lib/public/hashTable.h"
#include "lib/public/heap.h"

// ---- attributes ------------------------------------------------------------------------------

// What stat(2) reports of a file.
struct FileData {
  int64_t fileAccessTime;    // seconds, like the other times
  int64_t fileCreationTime;  // of the last change of status, which stands in for creation
  int64_t fileModificationTime;
  int64_t fileSize;  // bytes
  FileType fileType;
  uint32_t fileMode;  // the whole st_mode, type bits included
  uint32_t fileOwner;
  uint32_t fileGroup;
};

// Errno-style.  Follows links; `out` may be null.  A null path is EFAULT.
[[nodiscard]] int FileAttributes(const char *path, FileData *out);

// Errno-style: whether `path` is a directory, links followed; ENOTDIR for anything else.
[[nodiscard]] int FileRequireDirectory(const char *path);

// Errno-style: mkdir(2), with the process's umask.  A null path is EFAULT.
[[nodiscard]] int FileCreateDirectory(const char *path, int mode);

// ---- identities (fileIdentity.cpp) -----------------------------------------------------------

// Which file it is, under any name and through any mount.
struct FileIdentity {
  dev_t device;
  ino_t inode;

  static FileIdentity Of(const struct stat &status) { return {status.st_dev, status.st_ino}; }
  // Errno-style, of an open file.
  [[nodiscard]] static int Of(int fd, FileIdentity *identity);
  bool operator==(const FileIdentity &) const = default;
};

// A number for each of some files.
class FileIdentityMap {
  HashTableOwner table_;

 public:
  FileIdentityMap();
  // Whether the file is there; then *value, unless `value` is null, receives its number.
  bool Get(const FileIdentity &identity, int64_t *value = nullptr) const;
  void Set(const FileIdentity &identity, int64_t value = 0);
};

// Errno-style: EINVAL when the open directory `dir` is the directory `outer` or lies below it.  What is
// above a directory that the caller may not open counts as outside.
[[nodiscard]] int FileRequireOutside(int dir, const FileIdentity &outer);

// ---- removal ---------------------------------------------------------------------------------

// Errno-style: unlink(2).  With handleLink, what a symbolic link names is removed before the link:
// the target's text is taken as a path by itself, so a relative one counts from the current
// directory.  A target that is missing is fine; one that cannot be removed leaves the link.  A null
// path is EFAULT.
int FileDeletePath(const char *path, bool handleLink);

// Removes the file `identity`, no directory, that `name` leads to from the directory `dir` (which
// may be AT_FDCWD).  With followLinks, `name` may be a link, which is then removed, too; links count
// from where they are.  A name that leads to another file by now is left alone.  errno is unchanged.
void FileRemoveOpened(int dir, const char *name, const FileIdentity &identity, bool followLinks);

// Removes what is below the directory `path` and, unless contentOnly, the directory; see
// File_DeleteDirectoryTree.  With `expected`, ESTALE and nothing removed if `path` leads to another
// directory.
bool FileDeleteDirectoryTree(const char *path, bool contentOnly,
                             const FileIdentity *expected = nullptr);

// ---- paths -----------------------------------------------------------------------------------

// The longest beginning of `path` (not null) that exists, cut at a "/", as a new string that the
// caller frees; "/" or "." when there is none.
[[nodiscard]] char *FileFindExistingPrefix(const char *path);

// ---- directories -----------------------------------------------------------------------------

// How a directory is opened that is walked by its entries.
inline constexpr int kFileOpenDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// The names of a directory, which this object owns.
class FileNames {
  HeapArray<char *> names_;
  HeapArray<unsigned char> types_;
  int count_ = 0;

  bool Take(struct WalkDirContext *walk, uint64_t limit);

 public:
  FileNames() noexcept = default;
  FileNames(FileNames &&other) noexcept
      : names_(std::move(other.names_)),
        types_(std::move(other.types_)),
        count_(std::exchange(other.count_, 0)) {}
  FileNames &operator=(FileNames &&) = delete;
  ~FileNames() { Clear(); }

  // On failure false, with errno set and no names.  In the second form `dir` is the directory,
  // which stays open; `path` is what log records call it; more entries than `limit` are EFBIG.
  [[nodiscard]] bool List(const char *path);
  [[nodiscard]] bool ListAt(int dir, const char *path, uint64_t limit = UINT64_MAX);
  void Clear() noexcept;

  int Count() const noexcept { return count_; }
  const char *operator[](int i) const noexcept { return names_[static_cast<size_t>(i)]; }
  // What kind of entry it was when it was listed: DT_REG and the like, as in readdir(3).
  unsigned char TypeOf(int i) const noexcept { return types_[static_cast<size_t>(i)]; }
  char *const *begin() const noexcept { return names_.get(); }
  char *const *end() const noexcept { return names_.get() + count_; }
};
