// frameworks.cpp -- stand-ins for the parts of CoreFoundation and Security that darwin code uses.
//
// Every object is a string, and live objects are counted.  Strings are normalised by the code for Linux.

#include "tests/support/darwin/frameworks.h"

#include <Security/Security.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <utility>

#include "lib/public/heap.h"

// platform/linux/unicodeNormalize.cpp by another name: null for what is not UTF-8.
HeapStr LinuxNormalizeUnicode(const char *string, bool precomposed);

struct FrameworkObject {
  std::string text;

  explicit FrameworkObject(std::string utf8 = "") : text(std::move(utf8)) {
    frameworks.liveObjects++;
  }
  FrameworkObject(const FrameworkObject &) = delete;
  FrameworkObject &operator=(const FrameworkObject &) = delete;
  virtual ~FrameworkObject() { frameworks.liveObjects--; }
  virtual CFTypeID Type() const { return 1; }
};
struct __CFString : FrameworkObject {
  using FrameworkObject::FrameworkObject;
  CFTypeID Type() const override { return CFStringGetTypeID(); }
};
struct __CFURL : FrameworkObject {};
struct __CFBundle : FrameworkObject {
  __CFString identifier{kFrameworksBundle};
  FrameworkObject number;
};
struct __SecCode : FrameworkObject {};
struct __SecRequirement : FrameworkObject {};

namespace {

bool CallFails() {
  return frameworks.callsToFailure > 0 && --frameworks.callsToFailure == 0;
}

// Creating a code object or a requirement can fail in three ways: with an error, with an error and an
// object, and with neither.
template <typename Object, typename Ref>
OSStatus Create(Ref *object, OSStatus error) {
  if (CallFails()) return error;
  const bool odd = CallFails();
  *object = CallFails() ? nullptr : new Object;
  return odd ? error : OSStatus{errSecSuccess};
}

void Note(const std::string &call, SecCSFlags flags) {
  frameworks.securityCalls += call + " " + std::to_string(flags) + "\n";
}

}  // namespace

// ---- CoreFoundation ----------------------------------------------------------------------------

void CFRelease(CFTypeRef object) {
  delete static_cast<const FrameworkObject *>(object);
}

CFTypeID CFGetTypeID(CFTypeRef object) {
  return static_cast<const FrameworkObject *>(object)->Type();
}

CFTypeID CFStringGetTypeID() {
  return 7;
}

CFStringRef CoreFoundation_Constant(const char *text) {
  static std::map<std::string, __CFString> constants;
  const auto [constant, isNew] = constants.try_emplace(text, text);
  if (isNew) frameworks.liveObjects--;  // never released
  return &constant->second;
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char *bytes, CFStringEncoding) {
  return CallFails() || LinuxNormalizeUnicode(bytes, true) == nullptr ? nullptr
                                                                      : new __CFString(bytes);
}

CFStringRef CFStringCreateWithFormat(CFAllocatorRef, CFDictionaryRef, CFStringRef format, ...) {
  if (CallFails()) return nullptr;
  char text[1024];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format->text.c_str(), arguments);
  va_end(arguments);
  return new __CFString(text);
}

CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef, CFIndex, CFStringRef string) {
  return CallFails() ? nullptr : new __CFString(string->text);
}

void CFStringNormalize(CFMutableStringRef string, CFStringNormalizationForm form) {
  string->text =
      LinuxNormalizeUnicode(string->text.c_str(), form == kCFStringNormalizationFormC).get();
}

// In UTF-16 units: one for each lead byte, and another one for each lead byte of four-byte sequences.
CFIndex CFStringGetLength(CFStringRef string) {
  return std::ranges::count_if(string->text, [](char c) { return (c & 0xC0) != 0x80; }) +
         std::ranges::count_if(string->text, [](char c) { return (c & 0xF8) == 0xF0; });
}

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding) {
  return CallFails() ? CFIndex{kCFNotFound} : 3 * length;
}

Boolean CFStringGetCString(CFStringRef string, char *buffer, CFIndex size, CFStringEncoding) {
  if (CallFails() || std::ssize(string->text) >= size) return false;
  buffer[string->text.copy(buffer, std::string::npos)] = '\0';
  return true;
}

const char *CFStringGetCStringPtr(CFStringRef, CFStringEncoding) {
  return frameworks.direct;
}

CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef, CFStringRef, CFURLPathStyle style,
                                       Boolean isDirectory) {
  const bool asMeant = style == kCFURLPOSIXPathStyle && !isDirectory;
  return CallFails() || !asMeant ? nullptr : new __CFURL;
}

CFBundleRef CFBundleCreate(CFAllocatorRef, CFURLRef) {
  return CallFails() ? nullptr : new __CFBundle;
}

CFStringRef CFBundleGetIdentifier(CFBundleRef bundle) {
  if (CallFails()) return nullptr;
  return frameworks.oddIdentifier ? reinterpret_cast<CFStringRef>(&bundle->number)
                                  : &bundle->identifier;
}

// ---- Security ----------------------------------------------------------------------------------

OSStatus SecStaticCodeCreateWithPath(CFURLRef, SecCSFlags flags, SecStaticCodeRef *code) {
  Note("code", flags);
  return Create<__SecCode>(code, errSecCSStaticCodeNotFound);
}

OSStatus SecRequirementCreateWithString(CFStringRef text, SecCSFlags flags,
                                        SecRequirementRef *requirement) {
  Note("requirement " + text->text, flags);
  return Create<__SecRequirement>(requirement, errSecCSReqInvalid);
}

OSStatus SecStaticCodeCheckValidity(SecStaticCodeRef code, SecCSFlags flags,
                                    SecRequirementRef requirement) {
  Note(code != nullptr && requirement != nullptr ? "check" : "check nothing", flags);
  frameworks.atCheck();
  return CallFails() ? errSecCSReqFailed : errSecSuccess;
}
