// hostinfo.cpp -- the path of the running program and the name of the host.

#include "hostinfo.h"

#include <sys/utsname.h>

#include <cstring>

#include "codeset.h"
#include "log.h"
#include "platform/process.h"

namespace {

constexpr size_t kModulePathSize = 1024;

// A new string; null when the bytes are not UTF-8.
char *FromLocal(const char *bytes) {
  char *string = nullptr;
  if (!CodeSet_CurrentToUtf8(bytes, strlen(bytes), &string, nullptr)) return nullptr;
  return string;
}

}  // namespace

char *Hostinfo_GetModulePath(unsigned privilege) {
  if (privilege > 1) {
    Warning("%s: invalid privilege parameter\n", "Hostinfo_GetModulePath");
    return nullptr;
  }
  char path[kModulePathSize];
  if (!Platform_ExecutablePath(path, sizeof path)) {
    Warning("HOSTINFO: %s: _NSGetExecutablePath failed.\n", "Hostinfo_GetModulePath");
    return nullptr;
  }
  return FromLocal(path);
}

char *Hostinfo_HostName() {
  utsname host;
  if (uname(&host) != 0 || host.nodename[0] == '\0') return nullptr;
  return FromLocal(host.nodename);
}
