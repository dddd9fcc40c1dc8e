// bundleIdentifier.cpp -- bundle identifiers on macOS, by CoreFoundation.
// Tests: tests/unit/darwin_test.cpp

#include "platform/codeSignature.h"
#include "platform/darwin/coreFoundation.h"

namespace {

enum Failure { kNone = 0, kPath = 1, kUrl = 2, kBundle = 3, kIdentifier = 4 };

// A copy in UTF-8; null if it cannot be made.
HeapStr ToUtf8(CFStringRef string) {
  const char *const direct = CFStringGetCStringPtr(string, kCFStringEncodingUTF8);
  if (direct != nullptr) return HeapStr(strdup(direct));
  return CfCopyUtf8(string);
}

}  // namespace

PlatformBundleIdentifier Platform_BundleIdentifier(const char *path, int item) {
  const auto string = CfPathString(path);
  if (string == nullptr) return {kPath, nullptr};
  const auto url = CfPathUrl(string.get());
  if (url == nullptr) return {kUrl, nullptr};
  if (item < 0) return {kBundle, nullptr};
  const CfOwner<CFBundleRef> bundle(CFBundleCreate(nullptr, url.get()));
  if (bundle == nullptr) return {kBundle, nullptr};
  // Borrowed from the bundle.  The property list may have a value of any type there.  A look-up by key
  // would not help: it prefers the value of a localised list, which is yet another file.
  CFStringRef const identifier = CFBundleGetIdentifier(bundle.get());
  if (identifier == nullptr || CFGetTypeID(identifier) != CFStringGetTypeID()) {
    return {kIdentifier, nullptr};
  }
  return {kNone, ToUtf8(identifier)};
}
