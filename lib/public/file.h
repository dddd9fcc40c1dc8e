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
[[nodiscard]] bool File_Copy(const char *srcName, const char *dstName, bool overwriteExisting);
[[nodiscard]] bool File_CopyFromFdToName(FileIODescriptor *srcFd, const char *dstName,
                                         bool overwriteExisting);
[[nodiscard]] bool File_CopyFromFdToFd(FileIODescriptor *srcFd, FileIODescriptor *dstFd);
[[nodiscard]] bool File_CopyTree(const char *srcName, const char *dstName, bool overwriteExisting,
                                 bool followSymlinks);
[[nodiscard]] bool File_Rename(const char *oldName, const char *newName, bool *asRename);
[[nodiscard]] bool File_MoveTree(const char *srcName, const char *dstName, bool overwriteExisting,
                                 bool *asRename);
[[nodiscard]] int64_t File_GetSizeEx(const char *path);
