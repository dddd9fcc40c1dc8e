// unicodeNormalize.cpp -- normalisation on macOS, by CoreFoundation.
// Tests: tests/unit/darwin_test.cpp

#include "platform/unicodeNormalize.h"

#include "platform/darwin/coreFoundation.h"

HeapStr Platform_NormalizeUnicode(const char *string, bool precomposed) {
  const CfOwner<CFStringRef> text(
      CFStringCreateWithCString(nullptr, string, kCFStringEncodingUTF8));
  if (text == nullptr) return nullptr;
  const CfOwner<CFMutableStringRef> normalized(CFStringCreateMutableCopy(nullptr, 0, text.get()));
  if (normalized == nullptr) return nullptr;
  CFStringNormalize(normalized.get(),
                    precomposed ? kCFStringNormalizationFormC : kCFStringNormalizationFormD);
  return CfCopyUtf8(normalized.get());
}
