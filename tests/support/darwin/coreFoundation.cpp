// coreFoundation.cpp -- a stand-in for the part of CoreFoundation that darwin code uses, for tests.

#include "tests/support/darwin/coreFoundation.h"

#include <CoreFoundation/CoreFoundation.h>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>

#include <string>

struct __CFString {
  std::u16string units;
};

namespace {

int liveObjects;
int callsToFailure;

bool Fails() {
  return callsToFailure > 0 && --callsToFailure == 0;
}

__CFString *Create(const std::u16string &units) {
  if (Fails()) return nullptr;
  liveObjects++;
  return new __CFString{units};
}

}  // namespace

int CoreFoundation_LiveObjects() {
  return liveObjects;
}

void CoreFoundation_FailCall(int nth) {
  callsToFailure = nth;
}

void CFRelease(CFTypeRef object) {
  delete static_cast<const __CFString *>(object);
  liveObjects--;
}

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char *bytes, CFStringEncoding) {
  std::u16string units(std::string(bytes).size(), u'\0');
  int32_t length = 0;
  UErrorCode error = U_ZERO_ERROR;
  u_strFromUTF8(units.data(), static_cast<int32_t>(units.size()), &length, bytes, -1, &error);
  units.resize(static_cast<size_t>(length));
  return U_FAILURE(error) ? nullptr : Create(units);
}

CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef, CFIndex, CFStringRef string) {
  return Create(string->units);
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
  return Fails() ? CFIndex{kCFNotFound} : 3 * length;
}

Boolean CFStringGetCString(CFStringRef string, char *buffer, CFIndex size, CFStringEncoding) {
  if (Fails()) return false;
  UErrorCode error = U_ZERO_ERROR;
  u_strToUTF8(buffer, static_cast<int32_t>(size), nullptr, string->units.data(),
              static_cast<int32_t>(string->units.size()), &error);
  return error == U_ZERO_ERROR;
}
