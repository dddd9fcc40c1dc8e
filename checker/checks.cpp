// checks.cpp -- what the checks have in common: details and commands.
// Tests: tests/system/check_test.cpp

#include "checker/checks.h"

#include <sys/stat.h>

#include <cstring>

#include "lib/public/err.h"
#include "lib/public/str.h"
#include "platform/mendingCommand.h"
#include "platform/mountPoint.h"

HeapStr PathAndError(const char *path, int error) {
  return Text("%s: %s", path, Err_ErrnoToString(error));
}

HeapStr PathAndOwner(const char *path, unsigned user, unsigned group) {
  return Text("%s belongs to %u:%u", path, user, group);
}

HeapStr CommandFor(const char *format, const char *path) {
  const HeapStr quoted = Quoted(path);
  return HeapStr(Str_SafeAsprintf(nullptr, format, quoted.get()));
}

HeapStr OwnCommand(const char *mode, const char *path) {
  const HeapStr quoted = Quoted(path);
  return Text("chown 0:0 %s && chmod %s %s", quoted.get(), mode, quoted.get());
}

HeapStr ItemOwnerCommand(const char *path) {
  struct stat info;
  if (lstat(path, &info) != 0 || S_ISLNK(info.st_mode)) return nullptr;
  return CommandFor("chown -h 0:0 %s", path);
}

namespace {

// The folder at which the file system of `path` is mounted.
HeapStr MountPoint(const char *path) {
  HeapStr at = Heap_SafeStrdup(path);
  while (!Platform_IsMountPoint(at.get())) {
    char *const slash = strrchr(at.get(), '/');
    if (slash == nullptr || slash == at.get()) return Heap_SafeStrdup("/");
    *slash = '\0';
  }
  return at;
}

}  // namespace

HeapStr RemountCommand(const char *option, const char *path) {
  const HeapStr point = MountPoint(path);
  const HeapStr quoted = Quoted(point.get());
  return HeapStr(Str_SafeAsprintf(nullptr, Platform_RemountCommand(), option, quoted.get()));
}
