// coreFoundation.cpp -- a stand-in for the part of CoreFoundation that darwin code uses, for tests.

#include "tests/support/darwin/coreFoundation.h"

#include <CoreFoundation/CoreFoundation.h>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>

#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "tests/support/darwin/cfObject.h"

struct __CFString : CfObject {
  explicit __CFString(std::u16string text) : units(std::move(text)) {}
  std::u16string units;
};

struct __CFURL : CfObject {
  explicit __CFURL(std::u16string text) : path(std::move(text)) {}
  std::u16string path;
};

struct __CFBundle : CfObject {
  explicit __CFBundle(CFStringRef text) : identifier(text) {}
  __CFBundle(const __CFBundle &) = delete;
  __CFBundle &operator=(const __CFBundle &) = delete;
  ~__CFBundle() override {
    if (identifier != nullptr) CFRelease(identifier);
  }
  CFStringRef identifier;
};

namespace {

int liveObjects;
int callsToFailure;
const char *bundleIdentifier;
const char *directPointer;

std::u16string FromUtf8(const char *bytes, UErrorCode *error) {
  std::u16string units(std::string(bytes).size(), u'\0');
  int32_t length = 0;
  u_strFromUTF8(units.data(), static_cast<int32_t>(units.size()), &length, bytes, -1, error);
  units.resize(static_cast<size_t>(length));
  return units;
}

}  // namespace

CfObject::CfObject() {
  liveObjects++;
}

CfObject::~CfObject() {
  liveObjects--;
}

bool CoreFoundation_CallFails() {
  return callsToFailure > 0 && --callsToFailure == 0;
}

int CoreFoundation_LiveObjects() {
  return liveObjects;
}

void CoreFoundation_FailCall(int nth) {
  callsToFailure = nth;
}

void CoreFoundation_SetBundle(const char *identifier, const char *direct) {
  bundleIdentifier = identifier;
  directPointer = direct;
}

CFStringRef CoreFoundation_Constant(const char *text) {
  static std::map<std::string, std::unique_ptr<__CFString>> constants;
  auto &constant = constants[text];
  if (constant == nullptr) {
    UErrorCode error = U_ZERO_ERROR;
    constant = std::make_unique<__CFString>(FromUtf8(text, &error));
    liveObjects--;  // it is never released
  }
  return constant.get();
}

void CFRelease(CFTypeRef object) {
  delete static_cast<const CfObject *>(object);
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char *bytes, CFStringEncoding) {
  UErrorCode error = U_ZERO_ERROR;
  const std::u16string units = FromUtf8(bytes, &error);
  return CoreFoundation_CallFails() || U_FAILURE(error) ? nullptr : new __CFString(units);
}

CFStringRef CFStringCreateWithFormat(CFAllocatorRef, CFDictionaryRef, CFStringRef format, ...) {
  if (CoreFoundation_CallFails()) return nullptr;
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, CoreFoundation_Text(format).c_str(), arguments);
  va_end(arguments);
  UErrorCode error = U_ZERO_ERROR;
  return new __CFString(FromUtf8(text, &error));
}

CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef, CFIndex, CFStringRef string) {
  return CoreFoundation_CallFails() ? nullptr : new __CFString(string->units);
}

void CFStringNormalize(CFMutableStringRef string, CFStringNormalizationForm form) {
  UErrorCode error = U_ZERO_ERROR;
  const auto *const normalizer = form == kCFStringNormalizationFormC
                                     ? unorm2_getNFCInstance(&error)
                                     : unorm2_getNFDInstance(&error);
  std::u16string result(string->units.size() * 4 + 1, u'\0');
  const auto length =
      unorm2_normalize(normalizer, string->units.data(), static_cast<int32_t>(string->units.size()),
                       result.data(), static_cast<int32_t>(result.size()), &error);
  string->units = result.substr(0, static_cast<size_t>(length));
}

CFIndex CFStringGetLength(CFStringRef string) {
  return static_cast<CFIndex>(string->units.size());
}

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding) {
  return CoreFoundation_CallFails() ? CFIndex{kCFNotFound} : 3 * length;
}

Boolean CFStringGetCString(CFStringRef string, char *buffer, CFIndex size, CFStringEncoding) {
  if (CoreFoundation_CallFails()) return false;
  UErrorCode error = U_ZERO_ERROR;
  u_strToUTF8(buffer, static_cast<int32_t>(size), nullptr, string->units.data(),
              static_cast<int32_t>(string->units.size()), &error);
  return error == U_ZERO_ERROR;
}

const char *CFStringGetCStringPtr(CFStringRef, CFStringEncoding) {
  return directPointer;
}

std::string CoreFoundation_Text(CFStringRef string) {
  std::string text(3 * string->units.size() + 1, '\0');
  int32_t length = 0;
  UErrorCode error = U_ZERO_ERROR;
  u_strToUTF8(text.data(), static_cast<int32_t>(text.size()), &length, string->units.data(),
              static_cast<int32_t>(string->units.size()), &error);
  return text.substr(0, static_cast<size_t>(length));
}

// ---- bundles -----------------------------------------------------------------------------------

CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef, CFStringRef path, CFURLPathStyle style,
                                       Boolean isDirectory) {
  const bool asMeant = style == kCFURLPOSIXPathStyle && !isDirectory;
  return CoreFoundation_CallFails() || !asMeant ? nullptr : new __CFURL(path->units);
}

CFBundleRef CFBundleCreate(CFAllocatorRef, CFURLRef) {
  if (CoreFoundation_CallFails()) return nullptr;
  UErrorCode error = U_ZERO_ERROR;
  return new __CFBundle(
      bundleIdentifier == nullptr ? nullptr : new __CFString(FromUtf8(bundleIdentifier, &error)));
}

CFStringRef CFBundleGetIdentifier(CFBundleRef bundle) {
  return CoreFoundation_CallFails() ? nullptr : bundle->identifier;
}
