// staging.cpp -- the root-owned copies that the daemon runs from.
//
// Idea:   the owner of the bundle's folders can replace what is in them at any moment, so nothing is
//         run from there.  Each item is opened once, checked, copied to where only root can write,
//         and the copy is checked again.  The second check is the one that counts, since nobody can
//         change what it has examined; the first one keeps unsigned files from being copied at all.
// Invariants:
//   1. Nobody but root can enter the tree before it is complete (SetGate): while a file is being copied,
//      it has its source's owner and mode for a moment.
//   2. The file copied is the one that was opened, checked and, where required, found to belong to root,
//      whatever its name refers to by then.  Its owner can still write to it: no more is copied than was
//      checked, and of a failed copy only the name is kept.
//   3. Root only inside ServiceImplWithPrivileges.
// More:   docs/staging.md
// Tests:  tests/system/staging_test.cpp

#include "opener/staging.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lib/public/fd.h"
#include "lib/public/file.h"
#include "lib/public/heap.h"
#include "lib/public/log.h"
#include "lib/public/scopeGuard.h"
#include "lib/public/str.h"
#include "opener/codeSignature.h"
#include "opener/location.h"
#include "opener/serviceImpl.h"
#include "opener/stagingPlan.h"
#include "opener/startup.h"
#include "platform/files.h"

namespace {

constexpr int kDirMode = 0755;

// ---- the folders ------------------------------------------------------------------------------

// Logs a failure, which the library's file procedures do not, and returns `ok`.
bool Recorded(bool ok, const char *what, const char *path) {
  if (!ok) Warning("%s: Cannot %s %s, errno %d.\n", "constructWorkingDir", what, path, errno);
  return ok;
}

bool MakeFolder(const char *path) {
  return Recorded(File_CreateDirectoryIfAbsent(path, kDirMode), "make folder", path);
}

// The mode of the tree's top: 0700 keeps everybody but root out until the tree is complete.
bool SetGate(const char *services, mode_t mode) {
  if (chmod(services, mode) == 0) return true;
  Warning("%s: chmod errno %d.\n", "constructWorkingDir", errno);
  return false;
}

// The folder must be a directory and no link to one, belong to root, and be writable by root only.
bool RequireRootsFolder(const char *path) {
  const Fd folder(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat info;
  const bool known = folder && fstat(folder.Get(), &info) == 0;
  if (!Recorded(known, "look at folder", path)) return false;
  if (IsRootsAlone(info)) return true;
  Warning("%s: Folder %s is not root's alone.\n", "constructWorkingDir", path);
  return false;
}

// Checks the product's own folders; those above them belong to the system.
bool MakeInstallRoot() {
  const char *const root = Location_GetInstallRoot();
  char *parent;
  File_GetPathName(root, &parent, nullptr);
  const HeapStr owner(parent);
  return RequireRootsFolder(parent) && MakeFolder(root) && RequireRootsFolder(root);
}

bool MakeFolders(const char *services) {
  if (!MakeInstallRoot() ||
      !Recorded(File_DeleteDirectoryTree(services), "remove folder", services) ||
      !MakeFolder(services) || !SetGate(services, S_IRWXU)) {
    return false;
  }
  HeapStr folder = Heap_SafeStrdup(services);
  for (const char *name : {"/Contents", "/Library", "/kexts"}) {
    folder.reset(Str_SafeAsprintf(nullptr, "%s%s", folder.get(), name));
    if (!MakeFolder(folder.get())) return false;
  }
  Log("%s: %s construction complete.\n", "constructWorkingDir", folder.get());
  return true;
}

// ---- the copies -------------------------------------------------------------------------------

// An open item, and the path by which it was opened.
struct Source {
  const char *path;
  int fd;
};

bool IsRoots(const Source &src) {
  struct stat info;
  return Recorded(fstat(src.fd, &info) == 0, "look at", src.path) && info.st_uid == 0 &&
         info.st_gid == 0;
}

// The copy has the source's data and metadata, but belongs to root, has the mode `mode`, and no access
// control list, which could let others write despite the mode.
bool CopyFileAsRoot(int from, const char *dst, mode_t mode, uint64_t limit) {
  // The mode is set below.
  const Fd to(open(dst, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  return to && Platform_CopyFileWithMetadata(from, to.Get(), limit) &&
         Platform_RemoveAccessList(to.Get()) && fchown(to.Get(), 0, 0) == 0 &&
         fchmod(to.Get(), mode) == 0;
}

bool CopyItem(const Source &src, const char *dst, mode_t mode, const PlatformSignedExtent &extent) {
  struct stat info;
  if (fstat(src.fd, &info) != 0) return false;
  if (!S_ISDIR(info.st_mode)) return CopyFileAsRoot(src.fd, dst, mode, extent.bytes);
  return MakeFolder(dst) &&
         File_CopyOpenTree(src.fd, src.path, dst, {extent.bytes, extent.entries});
}

// After a failed copy: if its name exists, keeps the name and removes all content.
bool EmptyCopy(const char *dst) {
  if (File_IsDirectory(dst)) return File_DeleteDirectoryContent(dst);
  if (File_UnlinkNoFollow(dst) != 0) return errno == ENOENT;
  return bool(Fd(open(dst, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR)));
}

// ---- the items --------------------------------------------------------------------------------

bool StageSource(const StagedItem &item, const Source &src, const char *dst) {
  HeapStr own;
  const char *identifier = item.identifier;
  if (strcmp(identifier, kOwnIdentifier) == 0) {
    own.reset(GetOpenBundleIdentifier(src.path, src.fd));
    identifier = own.get();
  }
  PlatformSignedExtent extent;
  if (identifier == nullptr || !VerifyOpenCodeSignature(src.path, src.fd, identifier, &extent)) {
    return false;
  }
  if (Recorded(CopyItem(src, dst, item.mode, extent), "copy", src.path) &&
      VerifyCodeSignature(dst, identifier)) {
    return true;
  }
  (void)Recorded(EmptyCopy(dst), "empty", dst);
  return false;
}

bool StageItem(const StagedItem &item, const char *services) {
  const bool mustBeRoots = item.owner == SourceOwner::kRoot;
  const HeapStr src(LocationGetRoot(item.key));
  // The owner is checked twice: here where the name leads, links followed, before anything is opened; and
  // below on the open file, since the name may lead elsewhere by then.
  if (src == nullptr || (mustBeRoots && CheckRootOwned(src.get()) != 0)) return false;
  const char *const relative = LocationGetRelative(item.key);
  if (relative == nullptr) return false;
  const HeapStr dst(Str_Asprintf(nullptr, "%s%s", services, relative));
  if (dst == nullptr) return false;
  // If this fails, the check below reports it.
  const Fd open = Platform_OpenSignedItem(src.get());
  const Source source = {src.get(), open.Get()};
  if (mustBeRoots && open && !IsRoots(source)) return false;
  return StageSource(item, source, dst.get());
}

bool StageItems(const char *services) {
  for (const StagedItem &item : kStagedItems) {
    if (!StageItem(item, services)) return false;
  }
  return true;
}

}  // namespace

bool constructWorkingDir() {
  const HeapStr services(Str_Asprintf(nullptr, "%s%s", Location_GetInstallRoot(), kServicesFolder));
  if (services == nullptr) return false;
  // PRIV: the tree belongs to root.
  return ServiceImplWithPrivileges([&] {
    const ScopeGuard checks([] { Platform_EndCodeSignatureChecks(); });
    return MakeFolders(services.get()) && StageItems(services.get()) &&
           SetGate(services.get(), kDirMode);
  });
}
