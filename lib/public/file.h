// file.h -- paths, directories, and copies of files and trees.
#pragma once

#include <cstdint>

#include "fileIO.h"

enum FileType : uint32_t {
  FILE_TYPE_REGULAR = 0,
  FILE_TYPE_DIRECTORY = 1,
  FILE_TYPE_BLOCKDEVICE = 2,
  FILE_TYPE_CHARDEVICE = 3,
  FILE_TYPE_SYMLINK = 4,
  FILE_TYPE_UNCERTAIN = 7,  // FIFO, socket
};

// ---- predicates ------------------------------------------------------------------------------
[[nodiscard]] bool File_Exists(const char *path);
[[nodiscard]] bool File_IsDirectory(const char *path);
[[nodiscard]] bool File_IsRegularFile(const char *path);
[[nodiscard]] bool File_IsEmptyDirectory(const char *path);
[[nodiscard]] bool File_IsFullPath(const char *path);
[[nodiscard]] bool File_GetFilePermissions(const char *path, int *mode);

// ---- creation --------------------------------------------------------------------------------
bool File_CreateDirectory(const char *path);
bool File_CreateDirectoryMode(const char *path, int mode);
[[nodiscard]] bool File_CreateDirectoryIfAbsent(const char *path, int mode);
[[nodiscard]] bool File_EnsureDirectory(const char *path);
[[nodiscard]] bool File_CreateDirectoryHierarchyEx(const char *path, int mode,
                                                   char **topmostCreated);

// ---- deletion --------------------------------------------------------------------------------
int File_DeleteIfPresent(const char *path);
int File_Unlink(const char *path);
int File_UnlinkNoFollow(const char *path);
bool File_DeleteEmptyDirectory(const char *path);
bool File_DeleteDirectoryTree(const char *path);
bool File_DeleteDirectoryContent(const char *path);

// ---- walk and listing ------------------------------------------------------------------------
struct WalkDirContext;
[[nodiscard]] WalkDirContext *File_WalkDirectoryStart(const char *path);
[[nodiscard]] bool File_WalkDirectoryNext(WalkDirContext *context, char **name);
void File_WalkDirectoryEnd(WalkDirContext *context);
[[nodiscard]] int File_ListDirectory(const char *path, char ***names);

// ---- paths -----------------------------------------------------------------------------------
void File_SplitName(const char *path, char **volume, char **dir, char **base);
void File_GetPathName(const char *path, char **pathName, char **base);
[[nodiscard]] char *File_StripSlashes(const char *path);
[[nodiscard]] char *File_PathJoin(const char *dir, const char *name);
[[nodiscard]] char *File_Cwd(const char *drive);
[[nodiscard]] char *File_FullPath(const char *path);

// ---- copies, renames, sizes ------------------------------------------------------------------
//
// Each failure appends its messages to the pending ones (msg.h) and leaves its cause in errno.  A
// copy has the content only: a new file has mode 0600, a new directory 0777, both less the umask, and
// a file that is overwritten keeps its mode and owner.  The source is never touched; a destination
// file that is only half written is removed, and if it was reached through a symbolic link, that
// link, too.  Exhausted memory is fatal.

// Copies what can be read from the file `srcName`, a FIFO or device included, to the file `dstName`,
// which must not exist unless overwriteExisting.  Waits for who writes to a FIFO.  The source itself,
// under any name, is no destination (EEXIST), and a directory no source (EISDIR).
[[nodiscard]] bool File_Copy(const char *srcName, const char *dstName, bool overwriteExisting);

// The same from where the open file *srcFd stands; it stays open.
[[nodiscard]] bool File_CopyFromFdToName(FileIODescriptor *srcFd, const char *dstName,
                                         bool overwriteExisting);

// Copies up to the end of *srcFd, from where both stand; both stay open.
[[nodiscard]] bool File_CopyFromFdToFd(FileIODescriptor *srcFd, FileIODescriptor *dstFd);

// Copies what is in the directory srcName into the directory dstName; both must be there.  Symbolic
// links are made anew with the same text, and never replace anything (EEXIST); with followSymlinks
// what they lead to is copied, and a cycle ends only at the limits of paths.  The first failure ends
// the copy, and what was copied stays.  A directory that cannot be made fails at its first entry, and
// unnoticed when it has none.
[[nodiscard]] bool File_CopyTree(const char *srcName, const char *dstName, bool overwriteExisting,
                                 bool followSymlinks);

// rename(2), or else a copy of the file over newName and the removal of oldName, with what that
// links to.  *asRename, if asRename is not null, tells whether it was a rename.  A removal that fails
// is no failure.
[[nodiscard]] bool File_Rename(const char *oldName, const char *newName, bool *asRename);

// The same for a directory.  In place of the rename it is copied by File_CopyTree into dstName, which
// is made when missing and removed again when the copy fails, and then deleted; a deletion that
// fails leaves a message and is no failure.  EINVAL when one directory lies in the other such that
// deleting the source would delete the copy; ENOSPC when the file system has less room than
// File_GetSizeEx says.
[[nodiscard]] bool File_MoveTree(const char *srcName, const char *dstName, bool overwriteExisting,
                                 bool *asRename);

// The size in bytes of the file `path` (may be null: EFAULT), or the sum of the files in a tree,
// links followed; -1 when it cannot be opened or listed.  In a tree, what cannot counts as 0.  No
// message.
[[nodiscard]] int64_t File_GetSizeEx(const char *path);
