// unicodeNormalize.cpp -- normalisation on macOS, by CoreFoundation.

#include "platform/unicodeNormalize.h"

#include <CoreFoundation/CoreFoundation.h>

#include <memory>

namespace {

struct Releaser {
  void operator()(const void *object) const noexcept { CFRelease(object); }
};
using String = std::unique_ptr<const __CFString, Releaser>;
using MutableString = std::unique_ptr<__CFString, Releaser>;

HeapStr ToUtf8(CFStringRef string) {
  const CFIndex size =
      CFStringGetMaximumSizeForEncoding(CFStringGetLength(string), kCFStringEncodingUTF8);
  if (size == kCFNotFound) return nullptr;
  HeapStr bytes(Heap_Array<char>(static_cast<size_t>(size) + 1).release());
  if (bytes == nullptr ||
      !CFStringGetCString(string, bytes.get(), size + 1, kCFStringEncodingUTF8)) {
    return nullptr;
  }
  return bytes;
}

}  // namespace

HeapStr Platform_NormalizeUnicode(const char *string, bool precomposed) {
  const String text(CFStringCreateWithCString(nullptr, string, kCFStringEncodingUTF8));
  if (text == nullptr) return nullptr;
  const MutableString normalized(CFStringCreateMutableCopy(nullptr, 0, text.get()));
  if (normalized == nullptr) return nullptr;
  CFStringNormalize(normalized.get(),
                    precomposed ? kCFStringNormalizationFormC : kCFStringNormalizationFormD);
  return ToUtf8(normalized.get());
}
