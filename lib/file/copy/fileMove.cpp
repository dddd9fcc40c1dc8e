// fileMove.cpp -- renames, and the copy and removal that stand in for one.
//
// Invariants: 1. The source of a move is removed only after a complete copy outside it.  rename(2)
//             refuses to move a directory into itself; so must the copy in its place, or the copy
//             would be removed along with the source.
//             2. What is removed is the file or directory that was copied, known by its identity.
// Tests: tests/unit/fileTree_test.cpp

#include <fcntl.h>
#include <stdio.h>

#include <cerrno>

#include "lib/file/copy/fileCopyInt.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fd.h"
#include "lib/public/file.h"
#include "lib/public/msg.h"
#include "lib/public/str.h"
#include "platform/freeSpace.h"

namespace {

void StoreIfWanted(bool *asRename, bool value) {
  if (asRename != nullptr) *asRename = value;
}

// ---- room ----------------------------------------------------------------------------------------

// A number of bytes for the user, rounded up.
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

// False, with a message, when the file system of dst has less room than the tree open as `src` takes.
// Where either is unknown, the copy will show.
bool HasRoom(int src, const char *srcName, const char *dstName) {
  Fd top(fcntl(src, F_DUPFD_CLOEXEC, 0));
  const int64_t size = top ? FileSizeOfTree(std::move(top), srcName, false) : -1;
  uint64_t room = 0;
  if (size < 0 || !Platform_FreeSpace(dstName, &room) || static_cast<uint64_t>(size) <= room) {
    return true;
  }
  errno = ENOSPC;
  const HeapStr needed = SizeText(static_cast<uint64_t>(size));
  Msg_Append(
      "@&!*@*@(msg.File.MoveTree.dst.insufficientSpace)There is not enough space in the file "
      "system to move the directory tree. Free %s and try again.",
      needed.get());
  return false;
}

// ---- steps of a move by copy -----------------------------------------------------------------------

// Whether the destination, or the directory in which it is to be made, lies outside the source; if
// not, errno says why.
bool LiesOutside(const char *dstName, const FileIdentity &src) {
  const HeapStr there(FileFindExistingPrefix(dstName));
  const Fd dir(open(there.get(), kFileOpenDirectory));
  // What is no directory is refused later.
  return dir ? FileRequireOutside(dir.Get(), src) == 0 : errno == ENOTDIR;
}

// *created is false for a directory that another process made meanwhile, which is not to be removed.
bool CreateDestination(const char *dstName, bool *created) {
  char *topmost;
  const bool ok = File_CreateDirectoryHierarchyEx(dstName, 0777, &topmost);
  const HeapStr owner(topmost);
  *created = topmost != nullptr;
  if (ok) return true;
  Msg_Append("@&!*@*@(msg.File.MoveTree.dst.couldntCreate)Could not create '%s'.\n\n", dstName);
  return false;
}

// Leaves a directory at dstName with room for the tree open as `src`, or false with a message.
bool PrepareDestination(int src, const char *srcName, const char *dstName, bool *created) {
  FileData data;
  *created = false;
  const int error = FileAttributes(dstName, &data);
  if (error == ENOENT) return CreateDestination(dstName, created) && HasRoom(src, srcName, dstName);
  if (error != 0) {
    Msg_Append("@&!*@*@(msg.File.MoveTree.statFailed)%d:Failed to stat destination '%s'.\n\n",
               error, dstName);
    return false;
  }
  if (data.fileType == FILE_TYPE_DIRECTORY) return true;
  errno = ENOTDIR;
  Msg_Append(
      "@&!*@*@(msg.File.MoveTree.dest.notDirectory)"
      "The destination path '%s' is not a directory.\n\n",
      dstName);
  return false;
}

bool TellCopyFailed(const char *srcName) {
  Msg_Append(
      "@&!*@*@(msg.File.MoveTree.copyFailed)"
      "Could not rename and failed to copy source directory '%s'.\n\n",
      srcName);
  return false;
}

// What stands in for rename(2): the source is open as `src`.
bool MoveByCopy(Fd src, const char *srcName, const char *dstName, bool overwriteExisting) {
  FileIdentity identity;
  if (FileIdentity::Of(src.Get(), &identity) != 0 ||
      (dstName != nullptr && !LiesOutside(dstName, identity))) {
    return TellCopyFailed(srcName);
  }
  bool created = false;
  if (!PrepareDestination(src.Get(), srcName, dstName, &created)) return false;
  if (!FileCopyTreeWorker(std::move(src), srcName, dstName,
                          {.overwriteExisting = overwriteExisting})) {
    const ErrnoKeeper keeper;
    TellCopyFailed(srcName);
    if (created) File_DeleteDirectoryTree(dstName);
    return false;
  }
  if (!FileDeleteDirectoryTree(srcName, false, &identity)) {
    Msg_Append(
        "@&!*@*@(msg.File.MoveTree.cleanupFailed)"
        "Forced to copy '%s' into '%s' but unable to remove source directory.\n\n",
        srcName, dstName);
  }
  return true;
}

// rename(2), for which null is no crash.
bool Renamed(const char *oldName, const char *newName) {
  return oldName != nullptr && newName != nullptr && rename(oldName, newName) == 0;
}

}  // namespace

bool File_Rename(const char *oldName, const char *newName, bool *asRename) {
  const bool renamed = Renamed(oldName, newName);
  StoreIfWanted(asRename, renamed);
  if (renamed) return true;
  FileIdentity copied{};
  if (!FileCopyPaths(oldName, newName, true, &copied)) return false;
  FileRemoveOpened(AT_FDCWD, oldName, copied, true);
  errno = 0;  // the copy is what counts
  return true;
}

bool File_MoveTree(const char *srcName, const char *dstName, bool overwriteExisting,
                   bool *asRename) {
  StoreIfWanted(asRename, false);
  if (FileRequireDirectory(srcName) != 0) {
    Msg_Append("@&!*@*@(msg.File.MoveTree.source.notDirectory)Source path '%s' is not a directory.",
               srcName);
    return false;
  }
  if (Renamed(srcName, dstName)) {
    StoreIfWanted(asRename, true);
    return true;
  }
  Fd src(open(srcName, kFileOpenDirectory));
  if (!src) return TellCopyFailed(srcName);
  return MoveByCopy(std::move(src), srcName, dstName, overwriteExisting);
}
