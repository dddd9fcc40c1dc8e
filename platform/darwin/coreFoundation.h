// coreFoundation.h -- owners of CoreFoundation objects, and conversions of strings.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <memory>
#include <type_traits>

#include "lib/public/heap.h"

struct CfReleaser {
  void operator()(const void *object) const noexcept { CFRelease(object); }
};

// Owns an object of the reference type Ref, as returned by functions named Create and Copy, or none.
template <typename Ref>
using CfOwner = std::unique_ptr<std::remove_pointer_t<Ref>, CfReleaser>;

// The path as a string, and as a URL that is not marked as a directory; null on failure.
inline CfOwner<CFStringRef> CfPathString(const char *path) {
  return CfOwner<CFStringRef>(CFStringCreateWithCString(nullptr, path, kCFStringEncodingUTF8));
}

inline CfOwner<CFURLRef> CfPathUrl(CFStringRef path) {
  return CfOwner<CFURLRef>(
      CFURLCreateWithFileSystemPath(nullptr, path, kCFURLPOSIXPathStyle, false));
}

// A copy of the string in UTF-8; null if it cannot be converted or memory is exhausted.
[[nodiscard]] inline HeapStr CfCopyUtf8(CFStringRef string) {
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
