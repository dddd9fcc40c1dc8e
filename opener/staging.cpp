// staging.cpp -- the root-owned copies that the daemon runs from.
//
// Idea:   the owner of the bundle's folders can exchange what lies in them at any moment, so nothing
//         is run from there.  Each item is opened once, checked, copied to where only root can
//         write, and the copy is checked again: that second check is the one that counts, since
//         nobody can change what it has looked at.  The first one keeps unsigned files from being
//         copied at all.
// Holds:  1. Nobody but root gets into the tree before all of it is there (Gate): while it is
//            copied, a file has its source's owner and mode for a moment.
//         2. What is copied is what was opened, checked and, where it matters, found to be root's,
//            whatever has its name by then.  It can still be written to by its owner: no more of it
//            is copied than was checked, and of a failed copy nothing is kept but the name.
//         3. Root only inside ServiceImplWithPrivileges.
// More:   docs/staging.md

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

// The library makes, removes and copies without a word in the log.  Passes `ok` on.
bool Recorded(bool ok, const char *what, const char *path) {
  if (!ok) Warning("%s: Cannot %s %s, errno %d.\n", "constructWorkingDir", what, path, errno);
  return ok;
}

bool MakeFolder(const char *path) {
  return Recorded(File_CreateDirectoryIfAbsent(path, kDirMode), "make folder", path);
}

// Closes the tree to everybody but root, and opens it when it is complete.
bool SetGate(const char *services, mode_t mode) {
  if (chmod(services, mode) == 0) return true;
  Warning("%s: chmod errno %d.\n", "constructWorkingDir", errno);
  return false;
}

// Whether the folder, and no link to one, is root's and nobody else may write to it.
bool RequireRootsFolder(const char *path) {
  const Fd folder(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat info;
  const bool known = folder && fstat(folder.Get(), &info) == 0;
  if (!Recorded(known, "look at folder", path)) return false;
  if (IsRootsAlone(info)) return true;
  Warning("%s: Folder %s is not root's alone.\n", "constructWorkingDir", path);
  return false;
}

// The product's own folders; those above them are the system's.
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

// What is copied: open, and by the name that it had when it was opened.
struct Source {
  const char *path;
  int fd;
};

bool IsRoots(const Source &src) {
  struct stat info;
  return Recorded(fstat(src.fd, &info) == 0, "look at", src.path) && info.st_uid == 0 &&
         info.st_gid == 0;
}

// The copy has the source's data and metadata, but root for its owner, the mode `mode`, and no
// access list, which could let somebody write all the same.
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

// Leaves the name of a copy that failed, if there is one, and nothing of its content.
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
  if (src == nullptr || (mustBeRoots && CheckRootOwned(src.get()) != 0)) return false;
  const char *const relative = LocationGetRelative(item.key);
  if (relative == nullptr) return false;
  const HeapStr dst(Str_Asprintf(nullptr, "%s%s", services, relative));
  if (dst == nullptr) return false;
  // Nothing there: the check says so, with its record.
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
  // PRIV: the tree is root's, and stays so.
  return ServiceImplWithPrivileges([&] {
    const ScopeGuard checks([] { Platform_EndCodeSignatureChecks(); });
    return MakeFolders(services.get()) && StageItems(services.get()) &&
           SetGate(services.get(), kDirMode);
  });
}
