// fileInt.h -- what the modules of the file library share among themselves.
//
// Paths and threads are as in file.h.  An errno-style result is 0, or the errno of the call that
// failed, which then is in errno, too.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>

#include "lib/public/errnoKeeper.h"
#include "lib/public/file.h"
#include "lib/public/heap.h"

// What stat(2) tells of a file.
struct FileData {
  int64_t fileAccessTime;    // seconds, as the other times
  int64_t fileCreationTime;  // of the last change of status, which stands in for creation
  int64_t fileModificationTime;
  int64_t fileSize;  // bytes
  FileType fileType;
  uint32_t fileMode;  // the whole st_mode, with the bits of the type
  uint32_t fileOwner;
  uint32_t fileGroup;
};

// Errno-style.  Follows links; `out` may be null.  A null path is EFAULT.
[[nodiscard]] int FileAttributes(const char *path, FileData *out);

// Which file it is, whatever it is called.
struct FileIdentity {
  dev_t device;
  ino_t inode;

  static FileIdentity Of(const struct stat &status) { return {status.st_dev, status.st_ino}; }
  bool operator==(const FileIdentity &) const = default;
};

// Errno-style: whether `path` is a directory, links followed; ENOTDIR for anything else.
[[nodiscard]] int FileRequireDirectory(const char *path);

// Errno-style: mkdir(2), with the process's umask.  A null path is EFAULT.
[[nodiscard]] int FileCreateDirectory(const char *path, int mode);

// Errno-style: unlink(2).  With handleLink, what a symbolic link names is removed before the link:
// its target's text as a path by itself, so that one without a leading "/" counts from the current
// directory.  A target that is missing is fine; one that cannot be removed leaves the link.  A null
// path is EFAULT.
int FileDeletePath(const char *path, bool handleLink);

// How a directory is opened that is walked by its entries; O_NOFOLLOW where no link may lead there.
inline constexpr int kFileOpenDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// An entry of a directory that is open as `dir`; `path` is what messages call it.
struct FileEntry {
  int dir;
  const char *name;
  const char *path;
};

struct FileCopyOptions {
  bool overwriteExisting;
  bool followSymlinks;
  bool regularOnly;      // nothing but regular files is opened: ENOTSUP, or ELOOP for a link
  FileCopyBounds *left;  // what may still be copied; EFBIG beyond
};

// As File_Copy, of a file that is given as an entry.  Unless followSymlinks, neither file is opened
// through a link of its own, and no FIFO is waited for.
bool FileCopyEntry(const FileEntry &src, const char *dstName, const FileCopyOptions &options);

// Removes what is below the directory `path` and, unless contentOnly, the directory; see
// File_DeleteDirectoryTree.
bool FileDeleteDirectoryTree(const char *path, bool contentOnly);

// The longest beginning of `path` (not null) that exists, cut where a "/" stands, as a new string
// that the caller frees; "/" or "." when there is none.
[[nodiscard]] char *FileFindExistingPrefix(const char *path);

// The names of a directory, and their one owner.
class FileNames {
  char **names_ = nullptr;
  int count_ = 0;

 public:
  FileNames() noexcept = default;
  FileNames(const FileNames &) = delete;
  FileNames &operator=(const FileNames &) = delete;
  ~FileNames() { Clear(); }

  // False, and no names, with the errno of what failed.  Of the second form `dir` is the open
  // directory, which stays open, and `path` what log records call it; EFBIG for more names than
  // `limit`.
  [[nodiscard]] bool List(const char *path);
  [[nodiscard]] bool ListAt(int dir, const char *path, uint64_t limit = UINT64_MAX);
  void Clear() noexcept;

  int Count() const noexcept { return count_; }
  const char *operator[](int i) const noexcept { return names_[i]; }
  char *const *begin() const noexcept { return names_; }
  char *const *end() const noexcept { return names_ + count_; }
};
