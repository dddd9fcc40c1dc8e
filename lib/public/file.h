// file.h -- paths, directories, and copies of files and trees.
//
// Paths are UTF-8 with "/" as the only separator; they go to the system as they are, so one that is
// not UTF-8 works, too, where nothing says otherwise.  A new string is never null for want of
// memory, which is fatal, and the caller frees it with free().  "With errno" means that of the
// system call that failed, whatever was cleaned up after it.  A null path is EFAULT where null is
// not allowed for and errno is told; elsewhere it must not be null.  Any thread.
#pragma once

#include <cstdint>

struct FileIODescriptor;

// Types of files, as records keep them: 5 and 6 are not used.
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
// False for what cannot be looked at, with errno, and for a null path.  Links are followed.

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
// Modes are subject to the process's umask.  False with errno; nothing is logged unless told.

// mkdir(2): a path that exists is EEXIST.  Without a mode it is 0777.
bool File_CreateDirectory(const char *path);
bool File_CreateDirectoryMode(const char *path, int mode);

// The same, but a directory that is there, or a link to one, is accepted as it stands: mode, owner
// and content are left alone.  Anything else in its place is ENOTDIR; a link to nothing, ENOENT.
// The second one has the mode 0777.
[[nodiscard]] bool File_CreateDirectoryIfAbsent(const char *path, int mode);
[[nodiscard]] bool File_EnsureDirectory(const char *path);

// Creates each missing directory of the path, all with the mode, and accepts those that are there.
// True for a null or empty path.  topmostCreated, unless null, receives the first directory that
// was created as a new string, or null when there was none; on failure, too, when what was created
// stays.  A failure is logged.
[[nodiscard]] bool File_CreateDirectoryHierarchyEx(const char *path, int mode,
                                                   char **topmostCreated);

// ---- deletion --------------------------------------------------------------------------------

// These return 0 or the errno, which is also left in errno, 0 included.
//
// A file, and what it names if it is a symbolic link: first the target, its text taken as a path by
// itself, so that a relative one counts from the current directory; then the link.  A missing
// target is fine; one that cannot be removed leaves the link.
int File_Unlink(const char *path);
// The same; a path that is missing is 0.
int File_DeleteIfPresent(const char *path);
// The file or link itself.
int File_UnlinkNoFollow(const char *path);

// rmdir(2); false with errno.
bool File_DeleteEmptyDirectory(const char *path);

// Removes the directory with all that is below it, or only that.  True, and errno 0, when it is
// gone or was not there.  Otherwise false with the last errno, after everything else that could be
// removed has been; an entry that cannot be looked at is logged.
//
// Links below the path are removed and never followed, whatever is changed in the tree meanwhile; a
// directory that is moved away while it is being emptied ends the deletion with ESTALE.  The path
// itself may be a link to a directory, which then loses its content, and the result is ENOTDIR.  A
// name that is not UTF-8 is not removed (see the listing), which leaves its directory: ENOTEMPTY.
// Depth is bounded by memory, and so is the number of names in one directory.
bool File_DeleteDirectoryTree(const char *path);
bool File_DeleteDirectoryContent(const char *path);

// ---- walk and listing ------------------------------------------------------------------------
//
// Names come without "." and "..", each once.  One that is not UTF-8 comes as U+FFFD three times,
// after a log record; so several of them are one name, which as a rule names nothing.

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
// for no names.  Their order is none in particular.
[[nodiscard]] int File_ListDirectory(const char *path, char ***names);

// ---- paths -----------------------------------------------------------------------------------
//
// Only File_Cwd and File_FullPath look at the file system.  Any pointer for a result may be null.

// Takes the path apart at its last "/", which stays with *dir: "a/b/" is "a/b/" and "", "/x" is "/"
// and "x", "x" is "" and "x".  *volume is always empty.
void File_SplitName(const char *path, char **volume, char **dir, char **base);

// The same without the "/", and without those before it: "/x" is "" and "x", "a//b" is "a" and "b".
void File_GetPathName(const char *path, char **pathName, char **base);

// The path without the "/" at its end, however many: "a/b///" is "a/b", and "/" is "".
[[nodiscard]] char *File_StripSlashes(const char *path);

// Both with exactly one "/" in between: "/" and "x" are "/x", "a/" and "/b" are "a/b".
[[nodiscard]] char *File_PathJoin(const char *dir, const char *name);

// The current directory.  Null with errno, a log record and a message when it cannot be told.  One
// that is not UTF-8 is fatal.  There are no drives: one that is neither null nor empty is logged.
[[nodiscard]] char *File_Cwd(const char *drive);

// The path as an absolute one, with links, "." and ".." resolved as far as it exists; the rest is
// taken as it stands.  A null or empty path is the current directory.  When nothing can be
// resolved, only runs of "/" are made one.  Null with errno when a relative path meets no current
// directory, as for File_Cwd; on success errno is unchanged.
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
// what they lead to is copied, and a cycle ends only at the limits of paths or descriptors, of which
// each level keeps one.  Without it nothing below srcName is read through a link, whatever is changed
// there meanwhile, a link below dstName that is in the way stops the copy (ELOOP), and a FIFO gives
// only what is in it.  The first failure ends the copy, and what was copied stays.  A directory that
// cannot be made fails at its first entry, and unnoticed when it has none.
[[nodiscard]] bool File_CopyTree(const char *srcName, const char *dstName, bool overwriteExisting,
                                 bool followSymlinks);

// How much a copy may take: bytes of all files together; names below the top.
struct FileCopyBounds {
  uint64_t bytes;
  uint64_t entries;
};

// File_CopyTree without either flag, for a source that somebody else may change meanwhile: copies what
// is in the directory that is open as srcDir, at its beginning, and stays so; messages call it
// srcName.  EFBIG when there is more than the bounds allow; no more than that is written.  Below the
// source only regular files and directories are ever opened: a FIFO, socket or device is ENOTSUP.
[[nodiscard]] bool File_CopyOpenTree(int srcDir, const char *srcName, const char *dstName,
                                     FileCopyBounds bounds);

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
