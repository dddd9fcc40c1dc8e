// hostinfo.cpp -- the path of the running program, the name of the host, and whether a process lives.
//
// Tests: tests/unit/hostServices_test.cpp

#include "lib/public/hostinfo.h"

#include <signal.h>
#include <sys/utsname.h>

#include <cerrno>
#include <cstring>

#include "lib/public/codeset.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/log.h"
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

int Hostinfo_ProcessState(pid_t pid) {
  const ErrnoKeeper keeper;
  if (kill(pid, 0) == 0) return HOSTINFO_PROCESS_EXISTS;
  switch (errno) {
    case EPERM:
      return HOSTINFO_PROCESS_EXISTS;
    case ESRCH:
      return HOSTINFO_PROCESS_DEAD;
    default:
      return HOSTINFO_PROCESS_UNKNOWN;
  }
}
