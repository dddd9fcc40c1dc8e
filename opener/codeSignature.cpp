// codeSignature.cpp -- asks the host about signatures, and logs each failure.
// Tests: tests/system/staging_test.cpp, tests/system/verifier_test.cpp

#include "opener/codeSignature.h"

#include "lib/public/log.h"

namespace {

// "Could not be checked" has a record of its own, apart from "checked and not valid".
void LogObstacle(const char *what, const char *path, const char *obstacle, int error) {
  if (obstacle == nullptr) return;
  Log("PrivilegedHelper: The %s of %s could not be checked: %s, errno %d.\n", what, path, obstacle,
      error);
}

// Null if the item is open, or if nothing that could be signed is at the path.
const char *OpenObstacle(int item, int error) {
  if (item >= 0) return nullptr;
  switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ELOOP:
    case ENOTSUP:
      return nullptr;
    default:
      return "it cannot be opened";
  }
}

}  // namespace

bool VerifyCodeSignature(const char *path, const char *identifier) {
  const Fd item = Platform_OpenSignedItem(path);
  PlatformSignedExtent extent;
  return VerifyOpenCodeSignature(path, item.Get(), identifier, &extent);
}

bool VerifyOpenCodeSignature(const char *path, int item, const char *identifier,
                             PlatformSignedExtent *extent) {
  const int error = errno;
  const PlatformSignature found = Platform_VerifyCodeSignature(path, item, identifier);
  if (found.failure == 0) {
    *extent = found.extent;
    return true;
  }
  LogObstacle("code signature", path, OpenObstacle(item, error), error);
  LogObstacle("code signature", path, found.obstacle, found.error);
  Log("PrivilegedHelper: Failed to verify the code signature of %s due to %d", path, found.failure);
  return false;
}

char *GetBundleIdentifier(const char *path) {
  const Fd item = Platform_OpenSignedItem(path);
  return GetOpenBundleIdentifier(path, item.Get());
}

char *GetOpenBundleIdentifier(const char *path, int item) {
  const int error = errno;
  PlatformBundleIdentifier found = Platform_BundleIdentifier(path, item);
  if (found.failure != 0) {
    LogObstacle("bundle identifier", path, OpenObstacle(item, error), error);
    LogObstacle("bundle identifier", path, found.obstacle, found.error);
    Log("CoreFoundationUtils: Failed to get bundle identifier for %s due to (%d).\n", path,
        found.failure);
  } else if (found.text == nullptr) {
    Log("Failed to get C string from CFString.\n");
  }
  return found.text.release();
}
