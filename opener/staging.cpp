// staging.cpp -- the root-owned copies that the daemon runs from.
//
// Idea:   whoever owns the bundle's folders can exchange what lies in them at any moment, so nothing
//         is run from there.  Each item is checked, copied to where only root can write, and the
//         copy is checked again: that second check is the one that counts, since nobody can change
//         what it has looked at.  The first one keeps unsigned files from being copied at all.
// Holds:  1. Nobody but root gets into the tree before all of it is there (Gate): while it is
//            copied, a file has its source's owner and mode for a moment.
//         2. The owner of a source is also asked of the open file, not only of its name: what was
//            found under the name may have been exchanged since.
//         3. Root only inside ServiceImplWithPrivileges.
// More:   docs/staging.md

#include "opener/staging.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "fd.h"
#include "file.h"
#include "heap.h"
#include "log.h"
#include "opener/codeSignature.h"
#include "opener/location.h"
#include "opener/serviceImpl.h"
#include "opener/startup.h"
#include "platform/files.h"
#include "str.h"

namespace {

constexpr int kDirMode = 0755;

// Stands for the bundle identifier that the item itself carries.
constexpr char kOwnIdentifier[] = "zioplug";

enum class SourceOwner : uint8_t { kAnybody, kRoot };

struct Item {
  const char *key;  // of the location service
  const char *identifier;
  mode_t mode;  // of a file's copy
  SourceOwner owner;
};

constexpr Item kItems[] = {
    {"productInfo", "productInfo", 0644, SourceOwner::kAnybody},
    {"serviceDaemonFile", "Zephrin Lumen Client Services", 0755, SourceOwner::kRoot},
    {"serviceScriptFile", "services", 0755, SourceOwner::kRoot},
    {"usbarbFile", "zephrin-usbarbitrator", 0755, SourceOwner::kRoot},
    {"usbarbKext", kOwnIdentifier, 0755, SourceOwner::kAnybody},
};

// ---- the folders ------------------------------------------------------------------------------

// Closes the tree to everybody but root, and opens it when it is complete.
bool SetGate(const char *services, mode_t mode) {
  if (chmod(services, mode) == 0) return true;
  Warning("%s: chmod errno %d.\n", "constructWorkingDir", errno);
  return false;
}

bool MakeFolders(const char *services) {
  if (!File_CreateDirectoryIfAbsent(Location_GetInstallRoot(), kDirMode) ||
      !File_DeleteDirectoryTree(services) || !File_CreateDirectoryIfAbsent(services, kDirMode) ||
      !SetGate(services, S_IRWXU)) {
    return false;
  }
  HeapStr folder = Heap_SafeStrdup(services);
  for (const char *name : {"/Contents", "/Library", "/kexts"}) {
    folder.reset(Str_SafeAsprintf(nullptr, "%s%s", folder.get(), name));
    if (!File_CreateDirectoryIfAbsent(folder.get(), kDirMode)) return false;
  }
  Log("%s: %s construction complete.\n", "constructWorkingDir", folder.get());
  return true;
}

// ---- the copies -------------------------------------------------------------------------------

// Without waiting for the other end of a FIFO that somebody has put there.
Fd OpenSource(const char *src, SourceOwner owner) {
  Fd file(open(src, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat info;
  if (!file || fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode)) return Fd();
  if (owner == SourceOwner::kRoot && (info.st_uid != 0 || info.st_gid != 0)) return Fd();
  return file;
}

// 0, or 1 on failure.  The copy has the source's data and metadata, but root for its owner, the mode
// `mode`, and no access list, which could let somebody write all the same.
int CopyFileAsRoot(const char *src, const char *dst, mode_t mode, SourceOwner owner) {
  const Fd from = OpenSource(src, owner);
  if (!from) return 1;
  // The mode is set below.
  const Fd to(open(dst, O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!to || !Platform_CopyFileWithMetadata(from.Get(), to.Get(), UINT64_MAX)) return 1;
  const bool roots = Platform_RemoveAccessList(to.Get()) && fchown(to.Get(), 0, 0) == 0 &&
                     fchmod(to.Get(), mode) == 0;
  return roots ? 0 : 1;
}

bool CopyItem(const Item &item, const char *src, const char *dst) {
  if (!File_IsDirectory(src)) return CopyFileAsRoot(src, dst, item.mode, item.owner) == 0;
  return File_CreateDirectoryIfAbsent(dst, kDirMode) && File_CopyTree(src, dst, true, false);
}

char *IdentifierOf(const Item &item, const char *src) {
  if (strcmp(item.identifier, kOwnIdentifier) == 0) return GetBundleIdentifier(src);
  return Heap_SafeStrdup(item.identifier).release();
}

bool StageItem(const Item &item, const char *services) {
  const HeapStr src(LocationGetRoot(item.key));
  if (src == nullptr) return false;
  if (item.owner == SourceOwner::kRoot && CheckRootOwned(src.get()) != 0) return false;
  const char *const relative = LocationGetRelative(item.key);
  if (relative == nullptr) return false;
  const HeapStr dst(Str_Asprintf(nullptr, "%s%s", services, relative));
  const HeapStr identifier(IdentifierOf(item, src.get()));
  return dst != nullptr && identifier != nullptr &&
         VerifyCodeSignature(src.get(), identifier.get()) && CopyItem(item, src.get(), dst.get()) &&
         VerifyCodeSignature(dst.get(), identifier.get());
}

bool StageItems(const char *services) {
  for (const Item &item : kItems) {
    if (!StageItem(item, services)) return false;
  }
  return true;
}

}  // namespace

bool constructWorkingDir() {
  const HeapStr services(Str_Asprintf(nullptr, "%s%s", Location_GetInstallRoot(), "/Services"));
  if (services == nullptr) return false;
  // PRIV: the tree is root's, and stays so.
  return ServiceImplWithPrivileges([&] {
    return MakeFolders(services.get()) && StageItems(services.get()) &&
           SetGate(services.get(), kDirMode);
  });
}
