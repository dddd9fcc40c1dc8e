// codeSignature.cpp -- what the host finds out about a signature, with a record of each failure.

#include "opener/codeSignature.h"

#include "log.h"
#include "platform/codeSignature.h"

bool VerifyCodeSignature(const char *path, const char *identifier) {
  const int failure = Platform_VerifyCodeSignature(path, identifier);
  if (failure == 0) return true;
  Log("PrivilegedHelper: Failed to verify the code signature of %s due to %d", path, failure);
  return false;
}

char *GetBundleIdentifier(const char *path) {
  PlatformBundleIdentifier identifier = Platform_BundleIdentifier(path);
  if (identifier.failure != 0) {
    Log("CoreFoundationUtils: Failed to get bundle identifier for %s due to (%d).\n", path,
        identifier.failure);
  } else if (identifier.text == nullptr) {
    Log("Failed to get C string from CFString.\n");
  }
  return identifier.text.release();
}
