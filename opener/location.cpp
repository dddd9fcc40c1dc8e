// location.cpp -- the product's files, found from the path of the running executable.
//
//   /Applications/Client.app/Contents/Library/opener        real path of the executable
//   /Applications/Client.app                                minus "up-count" components, here 3
//   /Applications/Client.app/Contents/Library/services.sh   plus the path of the key
//
// Anybody who may run the program may run it through a link, so the path is resolved before anything is
// derived from it.
// Tests: tests/unit/opener_test.cpp, tests/system/caller_test.cpp

#include "opener/location.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

#include "lib/public/heap.h"
#include "lib/public/hostinfo.h"
#include "lib/public/log.h"
#include "lib/public/posix.h"
#include "lib/public/str.h"

namespace {

struct ProcessRow {
  std::string_view tag;
  uint32_t upCount;  // components from the executable up to the bundle's root
};

// clang-format off
constexpr auto kProcesses = std::to_array<ProcessRow>({
    {"lumenClient-daemon", 3},
    {"lumenClient-opener", 3},
    {"lumen-remotedisplay-bundle", 6},
});
// clang-format on

static_assert(std::ranges::none_of(kProcesses,
                                   [](const ProcessRow &row) { return row.upCount == 0; }),
              "0 means that Location_Init has not run");

struct LocationRow {
  std::string_view key;
  const char *relative;
};

// clang-format off
constexpr auto kLocations = std::to_array<LocationRow>({
    {"rootDir",           ""},
    {"serviceDaemonFile", "/Contents/Library/Zephrin Lumen Client Services"},
    {"serviceScriptFile", "/Contents/Library/services.sh"},
    {"productInfo",       "/Contents/Library/productInfo"},
    {"usbarbFile",        "/Contents/Library/zephrin-usbarbitrator"},
    {"usbarbKext",        "/Contents/Library/kexts/zioplug.kext"},
    {"sslDir",            "/Contents/Frameworks"},
    {"frameworkDir",      "/Contents/Frameworks"},
});
// clang-format on

constexpr char kInstallRoot[] = "/Library/Application Support/Zephrin/Zephrin Calder Lumen";

struct LocationState {
  uint32_t upCount = 0;
};

constinit LocationState state;

// The real path of the running executable; null after a warning.
HeapStr ExecutableRealPath() {
  const HeapStr modulePath(Hostinfo_GetModulePath(1));
  if (modulePath == nullptr) {
    Warning("%s: Unable to retrieve path to executable.", "LocationGetRoot");
    return nullptr;
  }
  HeapStr realPath(Posix_RealPath(modulePath.get()));
  if (realPath == nullptr) {
    Warning("%s: Unable to get the realpath for %s", "LocationGetRoot", modulePath.get());
  }
  return realPath;
}

// The bundle's root; "" if that is "/"; null after a warning.
HeapStr BundleRoot() {
  HeapStr path = ExecutableRealPath();
  if (path == nullptr) return nullptr;
  std::string_view root = path.get();
  for (uint32_t up = 0; up < state.upCount; up++) {
    const size_t slash = root.rfind('/');
    if (slash == root.npos) {
      Warning("%s: sUpCount (%u) is too large for %s\n", "LocationGetRoot", state.upCount,
              path.get());
      return nullptr;
    }
    root = root.substr(0, slash);
  }
  path.get()[root.size()] = '\0';
  return path;
}

}  // namespace

void Location_Init(const char *processTag) {
  const auto row = std::ranges::find(kProcesses, processTag, &ProcessRow::tag);
  const bool known = row != kProcesses.end();
  if (!known || state.upCount != 0) {
    Warning("%s: Invalid initialization: sUpCount %u, processTag %s.\n", "Location_Init",
            state.upCount, processTag);
  }
  state.upCount = known ? row->upCount : 0;
}

char *LocationGetRoot(const char *key) {
  const char *const relative = LocationGetRelative(key);
  if (relative == nullptr) return nullptr;
  // The user who runs a set-user-ID program may have hard-linked it into a folder of their own.
  if (state.upCount == 0 && geteuid() != getuid()) {
    Warning("%s: Cannot get location root of a setuid process.\n", "LocationGetRoot");
    return nullptr;
  }
  const HeapStr root = BundleRoot();
  if (root == nullptr) return nullptr;
  return Str_Asprintf(nullptr, "%s%s", root.get(), relative);
}

const char *LocationGetRelative(const char *key) {
  const auto row = std::ranges::find(kLocations, key, &LocationRow::key);
  return row == kLocations.end() ? nullptr : row->relative;
}

const char *Location_GetInstallRoot() {
  return kInstallRoot;
}

LocationLookup Location_GetLookupFunction() {
  return LocationGetRoot;
}
