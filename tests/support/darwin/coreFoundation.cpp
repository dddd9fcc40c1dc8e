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
  explicit __CFString(std::string utf8) : text(std::move(utf8)) {}
  std::string text;
};
struct __CFURL : CfObject {};
struct __CFBundle : CfObject {
  std::unique_ptr<__CFString> identifier;
};

namespace {

int liveObjects;
int callsToFailure;
const char *bundleIdentifier;
const char *directPointer;

// How many UTF-16 units the text has; negative when it is not UTF-8.
CFIndex UnitCount(const std::string &text) {
  UErrorCode error = U_ZERO_ERROR;
  int32_t length = 0;
  u_strFromUTF8(nullptr, 0, &length, text.data(), static_cast<int32_t>(text.size()), &error);
  return error == U_BUFFER_OVERFLOW_ERROR || U_SUCCESS(error) ? length : -1;
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

std::string CoreFoundation_Text(CFStringRef string) {
  return string->text;
}

CFStringRef CoreFoundation_Constant(const char *text) {
  static std::map<std::string, std::unique_ptr<__CFString>> constants;
  auto &constant = constants[text];
  if (constant == nullptr) {
    constant = std::make_unique<__CFString>(text);
    liveObjects--;  // it is never released
  }
  return constant.get();
}

void CFRelease(CFTypeRef object) {
  delete static_cast<const CfObject *>(object);
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char *bytes, CFStringEncoding) {
  return CoreFoundation_CallFails() || UnitCount(bytes) < 0 ? nullptr : new __CFString(bytes);
}

CFStringRef CFStringCreateWithFormat(CFAllocatorRef, CFDictionaryRef, CFStringRef format, ...) {
  if (CoreFoundation_CallFails()) return nullptr;
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format->text.c_str(), arguments);
  va_end(arguments);
  return new __CFString(text);
}

CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef, CFIndex, CFStringRef string) {
  return CoreFoundation_CallFails() ? nullptr : new __CFString(string->text);
}

void CFStringNormalize(CFMutableStringRef string, CFStringNormalizationForm form) {
  UErrorCode error = U_ZERO_ERROR;
  const auto *const normalizer = form == kCFStringNormalizationFormC
                                     ? unorm2_getNFCInstance(&error)
                                     : unorm2_getNFDInstance(&error);
  char16_t units[256], normal[1024];
  char bytes[1024];
  int32_t length = 0;
  u_strFromUTF8(units, 256, &length, string->text.c_str(), -1, &error);
  length = unorm2_normalize(normalizer, units, length, normal, 1024, &error);
  string->text = u_strToUTF8(bytes, 1024, nullptr, normal, length, &error);
}

CFIndex CFStringGetLength(CFStringRef string) {
  return UnitCount(string->text);
}

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding) {
  return CoreFoundation_CallFails() ? CFIndex{kCFNotFound} : 3 * length;
}

Boolean CFStringGetCString(CFStringRef string, char *buffer, CFIndex size, CFStringEncoding) {
  if (CoreFoundation_CallFails() || std::ssize(string->text) >= size) return false;
  buffer[string->text.copy(buffer, std::string::npos)] = '\0';
  return true;
}

const char *CFStringGetCStringPtr(CFStringRef, CFStringEncoding) {
  return directPointer;
}

CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef, CFStringRef, CFURLPathStyle style,
                                       Boolean isDirectory) {
  const bool asMeant = style == kCFURLPOSIXPathStyle && !isDirectory;
  return CoreFoundation_CallFails() || !asMeant ? nullptr : new __CFURL;
}

CFBundleRef CFBundleCreate(CFAllocatorRef, CFURLRef) {
  if (CoreFoundation_CallFails()) return nullptr;
  auto bundle = std::make_unique<__CFBundle>();
  if (bundleIdentifier != nullptr)
    bundle->identifier = std::make_unique<__CFString>(bundleIdentifier);
  return bundle.release();
}

CFStringRef CFBundleGetIdentifier(CFBundleRef bundle) {
  return CoreFoundation_CallFails() ? nullptr : bundle->identifier.get();
}
