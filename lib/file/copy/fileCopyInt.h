// fileCopyInt.h -- what the files of this folder share among themselves.
#pragma once

#include <cstdint>

#include "lib/file/fileDescent.h"
#include "lib/file/fileInt.h"
#include "lib/public/file.h"
#include "lib/public/fileIO.h"

// A file named as an entry of an open directory.
struct FileEntry {
  int dir;  // may be AT_FDCWD
  const char *name;
  const FileDescent *way = nullptr;  // that `dir` is at hand of; null when `name` is the whole path

  // What messages call it.
  HeapStr Path() const;
};

struct FileCopyOptions {
  bool overwriteExisting = false;
  bool followSymlinks = false;     // without it no link is opened, and no FIFO is waited for
  bool regularOnly = false;        // only regular files and directories are opened: ENOTSUP
  FileCopyBounds *left = nullptr;  // what may still be copied, EFBIG beyond; null: no bounds
  const FileIdentityMap *source = nullptr;  // files that are never overwritten: EEXIST; null: none
};

// File_Copy's work once the source is open as *src, which it closes.  *copied, unless `copied` is
// null, becomes the identity of the source.
bool FileCopyOpened(FileIODescriptor *src, const FileEntry &srcEntry, const FileEntry &dst,
                    const FileCopyOptions &options, FileIdentity *copied = nullptr);

// File_Copy, which also tells which file it has copied.
bool FileCopyPaths(const char *srcName, const char *dstName, bool overwriteExisting,
                   FileIdentity *copied);

// Appends the message about a source that could not be opened; false.  errno stays.
bool FileTellOpenError(const FileEntry &src, FileIOResult result);

// File_CopyTree for a source that is open as `src`.
bool FileCopyTreeWorker(Fd src, const char *srcName, const char *dstName,
                        const FileCopyOptions &options);

// Errno-style: enters the directories and regular files of the tree that is open as `top` into *found.
[[nodiscard]] int FileScanTree(Fd top, const char *path, bool followLinks, FileIdentityMap *found);

// The sum of the files in the tree that is open as `top`; links count as 0 unless they are followed.
// -1 with errno when it cannot be listed.
[[nodiscard]] int64_t FileSizeOfTree(Fd top, const char *path, bool followLinks);
