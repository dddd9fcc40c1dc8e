// fileMove.cpp -- renames, and the copy and removal that stand in for one.
//
// Holds:  the source of a move is removed only after a complete copy outside it.  rename(2) refuses
//         to move a directory into itself; so must what stands in for it, or the copy would go with
//         the source.
// Tests:  tests/unit/fileTree_test.cpp

#include <stdio.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "lib/file/fileInt.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/file.h"
#include "lib/public/msg.h"
#include "lib/public/str.h"
#include "platform/freeSpace.h"

namespace {

void Tell(bool *asRename, bool value) {
  if (asRename != nullptr) *asRename = value;
}

// ---- moves that would lose what they move ------------------------------------------------------

// The first component of `inner` below `outer`, both full paths, or null when it is not below.
const char *NameBelow(const char *inner, const char *outer) {
  const size_t length = strcmp(outer, "/") == 0 ? 0 : strlen(outer);
  return strncmp(inner, outer, length) == 0 && inner[length] == '/' ? inner + length + 1 : nullptr;
}

// Whether the full path `path` leads through the directory `dir`, under whatever name.
bool LeadsThrough(char *path, const FileIdentity &dir) {
  for (char *end = strchr(path + 1, '/');; end = strchr(end + 1, '/')) {
    if (end != nullptr) *end = '\0';
    struct stat status;
    const bool same = stat(path, &status) == 0 && FileIdentity::Of(status) == dir;
    if (end == nullptr || same) return same;
    *end = '/';
  }
}

// Whether an entry of src would be copied over the directory of dst that src lies in.
bool CoversItself(const char *src, const char *dst) {
  const char *const name = NameBelow(src, dst);
  if (name == nullptr) return false;
  const HeapStr first(Heap_SafeStrdup(name));
  if (char *const slash = strchr(first.get(), '/'); slash != nullptr) *slash = '\0';
  const HeapStr entry(File_PathJoin(src, first.get()));
  struct stat status;
  return lstat(entry.get(), &status) == 0;
}

// Whether a copy of the directory src in dst can stand without src.
bool CanStandAlone(const char *src, const char *dst) {
  const HeapStr fullSrc(File_FullPath(src));
  const HeapStr fullDst(File_FullPath(dst));
  struct stat status;
  if (fullSrc == nullptr || fullDst == nullptr || stat(src, &status) != 0) return false;
  if (!LeadsThrough(fullDst.get(), FileIdentity::Of(status)) &&
      !CoversItself(fullSrc.get(), fullDst.get())) {
    return true;
  }
  errno = EINVAL;
  return false;
}

// ---- room ----------------------------------------------------------------------------------------

// A number of bytes for people, rounded up.
HeapStr SizeText(uint64_t bytes) {
  static constexpr const char *kUnits[] = {"KB", "MB", "GB", "TB", "PB", "EB"};
  if (bytes < 1024) {
    return HeapStr(Str_SafeAsprintf(nullptr, "%llu bytes", static_cast<unsigned long long>(bytes)));
  }
  size_t unit = 0;
  for (; bytes >> 20 != 0; bytes = (bytes >> 10) + ((bytes & 1023) != 0)) unit++;
  const auto tenths = static_cast<unsigned>((bytes * 10 + 1023) / 1024);
  return HeapStr(Str_SafeAsprintf(nullptr, "%u.%u %s", tenths / 10, tenths % 10, kUnits[unit]));
}

// False, with a message, when the file system of dst has less room than the tree src takes.  Where
// either cannot be told, the copy will show.
bool HasRoom(const char *src, const char *dst) {
  const int64_t size = File_GetSizeEx(src);
  uint64_t room = 0;
  if (size < 0 || !Platform_FreeSpace(dst, &room) || static_cast<uint64_t>(size) <= room) {
    return true;
  }
  const ErrnoKeeper keeper(ENOSPC);
  const HeapStr needed = SizeText(static_cast<uint64_t>(size));
  Msg_Append(
      "@&!*@*@(msg.File.MoveTree.dst.insufficientSpace)There is not enough space in the file "
      "system to move the directory tree. Free %s and try again.",
      needed.get());
  return false;
}

// ---- steps of a move by copy -----------------------------------------------------------------------

bool RequireSource(const char *srcName) {
  if (FileRequireDirectory(srcName) == 0) return true;
  const ErrnoKeeper keeper;
  Msg_Append("@&!*@*@(msg.File.MoveTree.source.notDirectory)Source path '%s' is not a directory.",
             srcName);
  return false;
}

// *created: what somebody else made meanwhile is not to be removed again.
bool CreateDestination(const char *dstName, bool *created) {
  char *topmost;
  const bool ok = File_CreateDirectoryHierarchyEx(dstName, 0777, &topmost);
  const HeapStr owner(topmost);
  *created = topmost != nullptr;
  if (ok) return true;
  const ErrnoKeeper keeper;
  Msg_Append("@&!*@*@(msg.File.MoveTree.dst.couldntCreate)Could not create '%s'.\n\n", dstName);
  return false;
}

// Leaves a directory at dstName with room for the tree, or false with a message.
bool PrepareDestination(const char *srcName, const char *dstName, bool *created) {
  struct stat status;
  *created = false;
  if (stat(dstName, &status) == 0) {
    if (S_ISDIR(status.st_mode)) return true;
    const ErrnoKeeper keeper(ENOTDIR);
    Msg_Append(
        "@&!*@*@(msg.File.MoveTree.dest.notDirectory)"
        "The destination path '%s' is not a directory.\n\n",
        dstName);
    return false;
  }
  if (errno != ENOENT) {
    const ErrnoKeeper keeper;
    Msg_Append("@&!*@*@(msg.File.MoveTree.statFailed)%d:Failed to stat destination '%s'.\n\n",
               keeper.Get(), dstName);
    return false;
  }
  return CreateDestination(dstName, created) && HasRoom(srcName, dstName);
}

bool CopyOver(const char *srcName, const char *dstName, bool overwriteExisting, bool created) {
  if (File_CopyTree(srcName, dstName, overwriteExisting, false)) return true;
  const ErrnoKeeper keeper;
  if (created) File_DeleteDirectoryTree(dstName);
  return false;
}

bool TellCopyFailed(const char *srcName) {
  const ErrnoKeeper keeper;
  Msg_Append(
      "@&!*@*@(msg.File.MoveTree.copyFailed)"
      "Could not rename and failed to copy source directory '%s'.\n\n",
      srcName);
  return false;
}

}  // namespace

bool File_Rename(const char *oldName, const char *newName, bool *asRename) {
  const bool renamed = rename(oldName, newName) == 0;
  Tell(asRename, renamed);
  if (renamed) return true;
  if (!File_Copy(oldName, newName, true)) return false;
  FileDeletePath(oldName, true);
  errno = 0;  // the copy is what counts
  return true;
}

bool File_MoveTree(const char *srcName, const char *dstName, bool overwriteExisting,
                   bool *asRename) {
  Tell(asRename, false);
  if (!RequireSource(srcName)) return false;
  if (rename(srcName, dstName) == 0) {
    Tell(asRename, true);
    return true;
  }
  if (!CanStandAlone(srcName, dstName)) return TellCopyFailed(srcName);
  bool created = false;
  if (!PrepareDestination(srcName, dstName, &created)) return false;
  if (!CopyOver(srcName, dstName, overwriteExisting, created)) return TellCopyFailed(srcName);
  if (!File_DeleteDirectoryTree(srcName)) {
    Msg_Append(
        "@&!*@*@(msg.File.MoveTree.cleanupFailed)"
        "Forced to copy '%s' into '%s' but unable to remove source directory.\n\n",
        srcName, dstName);
  }
  return true;
}
