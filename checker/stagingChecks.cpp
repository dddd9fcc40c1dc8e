// stagingChecks.cpp -- what the daemon is run from: the folders, the items and their signatures, room.
// Tests: tests/system/check_test.cpp

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "checker/checks.h"
#include "lib/public/err.h"
#include "lib/public/fd.h"
#include "lib/public/file.h"
#include "lib/public/scopeGuard.h"
#include "lib/public/str.h"
#include "opener/location.h"
#include "opener/stagingPlan.h"
#include "platform/codeSignature.h"
#include "platform/freeSpace.h"
#include "platform/mendingCommand.h"
#include "platform/mountPoint.h"

namespace {

// Sums over the items, and whether all of them were found valid.
struct Contents {
  uint64_t bytes = 0;
  bool isComplete = true;
  bool isTrustKnown = false;  // the line about this machine's trust has been written
};

// ---- the folders -------------------------------------------------------------------------------

// No folder could be opened there, for the reason `error`.
void ReportNoFolder(const char *check, const char *path, int error, bool mayBeMissing,
                    Report *report) {
  struct stat info;
  if (error == ENOENT && mayBeMissing) {
    report->Ok(check, Text("%s will be made", path));
  } else if (error == EACCES) {
    report->Unknown(check, PathAndError(path, error), nullptr);
  } else if (lstat(path, &info) == 0 && !S_ISDIR(info.st_mode)) {
    const HeapStr word = Quoted(path);
    report->Fail(check, Text("%s is a file or a link, and is to be a folder", path),
                 Text("rm %s && mkdir -m 755 %s", word.get(), word.get()));
  } else {
    report->Fail(check, PathAndError(path, error),
                 error == ENOENT ? CommandFor("mkdir -p -m 755 %s", path) : nullptr);
  }
}

// True when it is there and as it has to be; one that may be missing is then made by the opener.
bool CheckFolder(const char *check, const char *path, bool mayBeMissing, Report *report) {
  const Fd folder(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat info;
  if (!folder || fstat(folder.Get(), &info) != 0) {
    ReportNoFolder(check, path, errno, mayBeMissing, report);
    return false;
  }
  if (!IsRootsAlone(info)) {
    report->Fail(check,
                 Text("%s belongs to user %u and has mode %o: it is to be root's alone", path,
                      info.st_uid, static_cast<unsigned>(info.st_mode & ALLPERMS)),
                 OwnCommand("go-w", path));
    return false;
  }
  struct statvfs mounted;
  if (fstatvfs(folder.Get(), &mounted) == 0 && (mounted.f_flag & ST_RDONLY) != 0) {
    report->Fail(check, Text("%s cannot be written to", path), RemountCommand("rw", path));
    return false;
  }
  if (Platform_IsMountedNoexec(path)) {
    report->Fail(check, Text("the daemon could not be run from %s: mounted noexec", path),
                 RemountCommand("exec", path));
    return false;
  }
  report->Ok(check, Text("%s is root's alone", path));
  return true;
}

// ---- the items ---------------------------------------------------------------------------------

HeapStr SigningCommand(const char *identifier, const char *path) {
  const HeapStr name = Quoted(identifier);
  const HeapStr word = Quoted(path);
  return HeapStr(Str_SafeAsprintf(nullptr, Platform_SigningCommand(), name.get(), word.get()));
}

// Why there is no descriptor of the item.
void ReportUnopened(const char *check, const char *path, int error, Report *report) {
  if (error == EACCES) {
    report->Unknown(check, PathAndError(path, error), nullptr);
  } else if (error == ELOOP || error == ENOTSUP) {
    report->Fail(check, Text("%s is not a regular file or folder", path), nullptr);
  } else {
    report->Fail(check, PathAndError(path, error), nullptr);
  }
}

bool CheckItemOwner(const StagedItem &item, const char *path, int fd, Report *report) {
  struct stat info;
  if (item.owner != SourceOwner::kRoot || fstat(fd, &info) != 0 ||
      (info.st_uid == 0 && info.st_gid == 0)) {
    return true;
  }
  report->Fail(item.key, PathAndOwner(path, info.st_uid, info.st_gid), ItemOwnerCommand(path));
  return false;
}

// The identifier that the item has to be signed under; null after a result.
HeapStr IdentifierOf(const StagedItem &item, const char *path, int fd, Report *report) {
  if (strcmp(item.identifier, kOwnIdentifier) != 0) return Heap_SafeStrdup(item.identifier);
  PlatformBundleIdentifier found = Platform_BundleIdentifier(path, fd);
  if (found.text != nullptr) return std::move(found.text);
  report->Fail(item.key,
               found.obstacle != nullptr
                   ? Text("%s: %s", path, found.obstacle)
                   : Text("%s has no bundle identifier in its Contents/Info.plist", path),
               nullptr);
  return nullptr;
}

void ReportTrust(const PlatformSignature &signature, Contents *contents, Report *report) {
  if (contents->isTrustKnown) return;
  contents->isTrustKnown = true;
  if (!signature.noTrust) {
    report->Ok("trust", Text("this machine trusts the maker's signatures"));
    return;
  }
  const char *const mend = Platform_TrustCommand();
  const char *const why =
      signature.error == 0 ? "no certificate in the file" : Err_ErrnoToString(signature.error);
  report->Fail("trust", Text("%s: %s", signature.obstacle, why),
               mend == nullptr ? nullptr : Heap_SafeStrdup(mend));
}

void ReportSignature(const StagedItem &item, const char *path, const char *identifier,
                     const PlatformSignature &signature, Report *report) {
  if (signature.failure == 0) {
    report->Ok(item.key, Text("%s is signed as \"%s\"", path, identifier));
  } else if (signature.noTrust) {
    report->Unknown(item.key, Text("%s: nobody's signature is trusted", path), nullptr);
  } else if (signature.obstacle != nullptr) {
    report->Fail(
        item.key,
        Text("%s could not be checked: %s, errno %d", path, signature.obstacle, signature.error),
        nullptr);
  } else {
    report->Fail(item.key,
                 Text("%s: %s; install it again, or sign it if you know where it comes from", path,
                      signature.reason),
                 SigningCommand(identifier, path));
  }
}

// True when the item can be staged.
bool CheckItem(const CheckSubject &subject, const StagedItem &item, Contents *contents,
               Report *report) {
  const HeapStr path = Text("%s%s", subject.bundle, LocationGetRelative(item.key));
  const Fd fd = Platform_OpenSignedItem(path.get());
  if (!fd) {
    ReportUnopened(item.key, path.get(), errno, report);
    return false;
  }
  if (!CheckItemOwner(item, path.get(), fd.Get(), report)) return false;
  if (!subject.isRoot) {
    report->Unknown(item.key, Text("%s: signatures are checked for root only", path.get()),
                    nullptr);
    return false;
  }
  const HeapStr identifier = IdentifierOf(item, path.get(), fd.Get(), report);
  if (identifier == nullptr) return false;
  const PlatformSignature signature =
      Platform_VerifyCodeSignature(path.get(), fd.Get(), identifier.get());
  ReportTrust(signature, contents, report);
  ReportSignature(item, path.get(), identifier.get(), signature, report);
  contents->bytes += signature.extent.bytes;
  return signature.failure == 0;
}

// ---- room and limits ---------------------------------------------------------------------------

void CheckRoom(const char *root, const Contents &contents, Report *report) {
  const HeapStr services = Text("%s%s", root, kServicesFolder);
  uint64_t free = 0;
  if (!Platform_FreeSpace(root, &free)) {
    report->Unknown("room", PathAndError(root, errno), nullptr);
    return;
  }
  // The tree of the last start is removed first.
  const int64_t old = File_GetSizeEx(services.get());
  free += static_cast<uint64_t>(std::max<int64_t>(old, 0));
  if (!contents.isComplete) {
    report->Unknown("room", Text("%" PRIu64 " bytes are free; not known how many are needed", free),
                    nullptr);
  } else if (free < contents.bytes) {
    report->Fail("room",
                 Text("%" PRIu64 " bytes are free, %" PRIu64 " are needed", free, contents.bytes),
                 CommandFor("df -h %s", root));
  } else {
    report->Ok("room",
               Text("%" PRIu64 " bytes are free, %" PRIu64 " are needed", free, contents.bytes));
  }
}

// The program that checks signatures is run from a file in memory, which the limit applies to.
constexpr uint64_t kLeastFile = 32 << 20;

struct Limit {
  decltype(RLIMIT_NOFILE) which;
  const char *what;
  rlim_t least;
  const char *mend;
};

// The opener inherits the limits of the process that starts it, as this program does.
void CheckLimits(const Contents &contents, Report *report) {
  const Limit limits[] = {
      {RLIMIT_NOFILE, "open files", 32, "ulimit -n 1024"},
      {RLIMIT_FSIZE, "bytes in a file", std::max(contents.bytes, kLeastFile),
       "ulimit -f unlimited"},
      {RLIMIT_AS, "bytes of address space", 64 << 20, "ulimit -v unlimited"},
  };
  for (const Limit &limit : limits) {
    rlimit now;
    if (getrlimit(limit.which, &now) != 0 || now.rlim_cur >= limit.least) continue;
    report->Fail(
        "limits",
        Text("this shell may have %" PRIu64 " %s, and %" PRIu64 " are needed",
             static_cast<uint64_t>(now.rlim_cur), limit.what, static_cast<uint64_t>(limit.least)),
        Heap_SafeStrdup(limit.mend));
    return;
  }
  report->Ok("limits", Text("this shell's limits suffice"));
}

}  // namespace

void CheckStaging(const CheckSubject &subject, Report *report) {
  const ScopeGuard checks([] { Platform_EndCodeSignatureChecks(); });
  const char *const root = Location_GetInstallRoot();
  char *name;
  File_GetPathName(root, &name, nullptr);
  const HeapStr parent(name);
  const bool hasParent = CheckFolder("install-parent", parent.get(), false, report);
  const bool hasRoot = hasParent && CheckFolder("install-root", root, true, report);
  Contents contents;
  for (const StagedItem &item : kStagedItems) {
    contents.isComplete = CheckItem(subject, item, &contents, report) && contents.isComplete;
  }
  if (hasParent) CheckRoom(hasRoot ? root : parent.get(), contents, report);
  CheckLimits(contents, report);
}
