// file.h -- paths, directories, and copies of files and trees.
//
// Paths are UTF-8 with "/" as the only separator.  They go to the system unchanged, so a path that is
// not UTF-8 works as well unless stated otherwise.  Exhausted memory is fatal; the caller frees a new
// string with free().  "With errno" means the errno of the system call that failed, whatever was
// cleaned up after it.  A null path is EFAULT in every procedure that sets errno, unless stated
// otherwise; other procedures must not be given null.  Any thread.
#pragma once

#include <cstdint>

struct FileIODescriptor;

// Types of files; the numbers are part of stored records, and 5 and 6 are not used.
enum FileType : uint32_t {
  FILE_TYPE_REGULAR = 0,
  FILE_TYPE_DIRECTORY = 1,
  FILE_TYPE_BLOCKDEVICE = 2,
  FILE_TYPE_CHARDEVICE = 3,
  FILE_TYPE_SYMLINK = 4,
  FILE_TYPE_UNCERTAIN = 7,  // FIFO, socket
};

// ---- predicates ------------------------------------------------------------------------------
//
// False, with errno, for a path that cannot be examined, and for a null path.  Links are followed.

[[nodiscard]] bool File_Exists(const char *path);
[[nodiscard]] bool File_IsDirectory(const char *path);
[[nodiscard]] bool File_IsRegularFile(const char *path);

// Whether the path is a directory that can be listed and has no entry.
[[nodiscard]] bool File_IsEmptyDirectory(const char *path);

// Whether the path begins with "/"; it need not exist.
[[nodiscard]] bool File_IsFullPath(const char *path);

// Stores the whole st_mode, with the bits of the type, in *mode.
[[nodiscard]] bool File_GetFilePermissions(const char *path, int *mode);

// ---- creation --------------------------------------------------------------------------------
//
// Modes are subject to the process's umask.  False with errno; nothing is logged unless stated.

// mkdir(2): a path that exists is EEXIST.  Without a mode it is 0777.
bool File_CreateDirectory(const char *path);
bool File_CreateDirectoryMode(const char *path, int mode);

// The same, but an existing directory, or a link to one, is accepted as it is: mode, owner and content
// are not touched.  Anything else in its place is ENOTDIR; a dangling link is ENOENT.  The second
// procedure uses mode 0777.
[[nodiscard]] bool File_CreateDirectoryIfAbsent(const char *path, int mode);
[[nodiscard]] bool File_EnsureDirectory(const char *path);

// Creates each missing directory of the path with the given mode and accepts those that exist.  True
// for a null or empty path.  *topmostCreated, unless `topmostCreated` is null, receives the first
// directory that was created as a new string, or null if none was; also on failure, which leaves
// what was created.  A failure is logged.
[[nodiscard]] bool File_CreateDirectoryHierarchyEx(const char *path, int mode,
                                                   char **topmostCreated);

// ---- deletion --------------------------------------------------------------------------------

// These return 0 or the errno, which is also left in errno, 0 included.
//
// Removes a file; of a symbolic link, first the target and then the link.  The target's text is used
// as a path by itself, so a relative target counts from the current directory.  A missing target is
// no failure; a target that cannot be removed leaves the link.
int File_Unlink(const char *path);
// The same, but a missing path is 0.
int File_DeleteIfPresent(const char *path);
// Removes the file or link itself.
int File_UnlinkNoFollow(const char *path);

// rmdir(2); false with errno.
bool File_DeleteEmptyDirectory(const char *path);

// Removes the directory with everything below it, or only what is below it.  True, with errno 0, when
// that is gone or did not exist; several processes may delete one tree at the same time.  Otherwise
// false with the last errno, after everything else that can be removed has been; an entry that cannot
// be examined is logged.
//
// Links below the path are removed and never followed, whatever changes in the tree meanwhile; a
// directory that is moved away while it is being emptied ends the deletion with ESTALE.  The path
// itself may be a link to a directory: that directory is emptied, and the result is ENOTDIR.  A name
// that is not UTF-8 is not removed (see the listing) and keeps its directory: ENOTEMPTY.  Depth and
// the number of names in one directory are bounded by memory alone; four descriptors are in use.
bool File_DeleteDirectoryTree(const char *path);
bool File_DeleteDirectoryContent(const char *path);

// ---- walk and listing ------------------------------------------------------------------------
//
// Names come without "." and "..", each once.  A name that is not UTF-8 is logged and replaced by three
// U+FFFD, so several such names become one, which normally names nothing.

struct WalkDirContext;

// Null with errno.  A walk is used by one thread at a time, and ended with File_WalkDirectoryEnd.
[[nodiscard]] WalkDirContext *File_WalkDirectoryStart(const char *path);

// True with the next name in the system's order, as a new string in *name unless `name` is null.
// False at the end, with errno 0, and on failure, with errno.
[[nodiscard]] bool File_WalkDirectoryNext(WalkDirContext *context, char **name);

// `context` may be null.  errno is unchanged.
void File_WalkDirectoryEnd(WalkDirContext *context);

// The number of names, or -1 with errno; then *names is left alone.  Unless `names` is null, *names
// receives a new array of that many new strings, all of which the caller frees with free(), or null
// for no names.  Their order is unspecified.
[[nodiscard]] int File_ListDirectory(const char *path, char ***names);

// ---- paths -----------------------------------------------------------------------------------
//
// Only File_Cwd and File_FullPath access the file system.  Any pointer for a result may be null.

// Splits the path after its last "/": "a/b/" gives "a/b/" and "", "/x" gives "/" and "x", "x" gives ""
// and "x".  *volume is always empty.
void File_SplitName(const char *path, char **volume, char **dir, char **base);

// The same without the slashes in between: "/x" gives "" and "x", "a//b" gives "a" and "b".
void File_GetPathName(const char *path, char **pathName, char **base);

// The path without the slashes at its end: "a/b///" gives "a/b", and "/" gives "".
[[nodiscard]] char *File_StripSlashes(const char *path);

// Joins both with exactly one "/": "/" and "x" give "/x", "a/" and "/b" give "a/b".
[[nodiscard]] char *File_PathJoin(const char *dir, const char *name);

// The current directory.  Null with errno, a log record and a message when it cannot be determined.  A
// directory whose path is not UTF-8 is fatal.  There are no drives: a `drive` that is neither null
// nor empty is logged.
[[nodiscard]] char *File_Cwd(const char *drive);

// The absolute path, with links, "." and ".." resolved as far as it exists; the rest is appended as it
// is.  A null or empty path is the current directory.  If nothing can be resolved, runs of "/" are
// collapsed and nothing else.  Null with errno for a relative path without a current directory, as
// for File_Cwd; on success errno is unchanged.
[[nodiscard]] char *File_FullPath(const char *path);

// ---- copies, renames, sizes ------------------------------------------------------------------
//
// Each failure appends its messages to the pending ones (msg.h) and leaves its cause in errno.  A copy
// has the content only: a new file has mode 0600, a new directory 0777, both less the umask, and a
// file that is overwritten keeps its mode and owner.  The source is never modified.  A regular file
// that is only half written is removed; if the destination was a symbolic link to it, so is that link.
// Files and directories are compared by device and inode, so other names, links and mounts of the
// source count as the source.

// Copies what can be read from the file `srcName`, a FIFO or device included, to the file `dstName`,
// which must not exist unless overwriteExisting.  Waits for the writer of a FIFO.  EEXIST when both
// are the same file, EISDIR for a directory.
[[nodiscard]] bool File_Copy(const char *srcName, const char *dstName, bool overwriteExisting);

// The same from the position of the open file *srcFd, which stays open.
[[nodiscard]] bool File_CopyFromFdToName(FileIODescriptor *srcFd, const char *dstName,
                                         bool overwriteExisting);

// Copies from the position of *srcFd up to its end to the position of *dstFd; both stay open.
[[nodiscard]] bool File_CopyFromFdToFd(FileIODescriptor *srcFd, FileIODescriptor *dstFd);

// Copies what is in the directory srcName into the directory dstName; both must exist.  Symbolic links
// are recreated with the same text and never replace anything (EEXIST); with followSymlinks, what
// they lead to is copied instead.  Without followSymlinks, nothing below either directory is opened
// through a link, whatever changes there meanwhile: a link below dstName that is in the way stops the
// copy (ELOOP).  A FIFO then gives only what it holds.
//
// The first failure ends the copy, and what was copied stays.  EINVAL when a directory of the source
// is also one of the destination, which would copy it into itself or over itself; EEXIST when a file
// to be overwritten is one of the source; ELOOP for a directory met again below itself.  Depth is
// bounded by memory alone; ten descriptors are in use.
[[nodiscard]] bool File_CopyTree(const char *srcName, const char *dstName, bool overwriteExisting,
                                 bool followSymlinks);

// How much a copy may take: bytes of all files together; names below the top.
struct FileCopyBounds {
  uint64_t bytes;
  uint64_t entries;
};

// File_CopyTree without either flag, for a source that others may change meanwhile: copies what is in
// the directory open as srcDir, which stays open; messages call it srcName.  EFBIG when there is more
// than the bounds allow; no more than that is written.  Below the source only regular files and
// directories are opened (see platform/files.h): a FIFO, socket or device is ENOTSUP.
[[nodiscard]] bool File_CopyOpenTree(int srcDir, const char *srcName, const char *dstName,
                                     FileCopyBounds bounds);

// rename(2); if that fails, copies the file over newName and removes oldName, if it still leads to the
// file that was copied, together with what it links to.  *asRename, unless `asRename` is null, says
// whether it was a rename.  A removal that fails is no failure.
[[nodiscard]] bool File_Rename(const char *oldName, const char *newName, bool *asRename);

// The same for a directory.  In place of the rename it is copied by File_CopyTree into dstName, which
// is made if missing and removed again if the copy fails, and then deleted, if srcName still leads to
// it; a deletion that fails leaves a message and is no failure.  EINVAL as for File_CopyTree; ENOSPC
// when a new destination's file system has less room than the files of the tree take.
[[nodiscard]] bool File_MoveTree(const char *srcName, const char *dstName, bool overwriteExisting,
                                 bool *asRename);

// The size in bytes of the file `path` (may be null: EFAULT), or the sum of the files in a tree, links
// followed; -1 when it cannot be opened or listed.  In a tree, what cannot be opened counts as 0, and
// so does a directory within itself; a directory that several links lead to counts for each.  At most
// INT64_MAX.  No message.
[[nodiscard]] int64_t File_GetSizeEx(const char *path);
