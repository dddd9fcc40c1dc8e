// codeSignature.cpp -- code signatures on macOS, by the Security framework.

#include "platform/codeSignature.h"

#include <Security/Security.h>
#include <fcntl.h>

#include <algorithm>
#include <string_view>

#include "platform/darwin/coreFoundation.h"
#include "platform/files.h"

namespace {

enum Failure {
  kNone = 0,
  kPath = 1,
  kUrl = 2,
  kCode = 3,
  kText = 5,
  kRequirement = 6,
  kInvalid = 7
};

// Whether `identifier` between quotation marks is one string of the requirement language, and %s
// below reads it alike in each encoding that the user may have set.
bool CanBeQuoted(std::string_view identifier) {
  return std::ranges::all_of(identifier,
                             [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; });
}

// The code object of what is at `path`, and open as `item`; null with *failure.
CfOwner<SecStaticCodeRef> StaticCode(const char *path, int item, int *failure) {
  *failure = kPath;
  const auto string = CfPathString(path);
  if (string == nullptr) return nullptr;
  *failure = kUrl;
  const auto url = CfPathUrl(string.get());
  if (url == nullptr) return nullptr;
  *failure = kCode;
  if (item < 0) return nullptr;
  SecStaticCodeRef code = nullptr;
  const OSStatus status = SecStaticCodeCreateWithPath(url.get(), kSecCSDefaultFlags, &code);
  CfOwner<SecStaticCodeRef> owner(code);
  if (status != errSecSuccess) return nullptr;
  return owner;
}

// The designated requirement for `identifier`; null with *failure.
CfOwner<SecRequirementRef> Requirement(const char *identifier, int *failure) {
  *failure = kText;
  const CfOwner<CFStringRef> text(CFStringCreateWithFormat(
      nullptr, nullptr,
      CFSTR("identifier \"%s\" and anchor apple generic and anchor trusted and "
            "cert leaf[subject.CN] = *\"Zephrin, Inc.\"*"),
      identifier));
  if (text == nullptr) return nullptr;
  *failure = kRequirement;
  if (!CanBeQuoted(identifier)) return nullptr;
  SecRequirementRef requirement = nullptr;
  const OSStatus status =
      SecRequirementCreateWithString(text.get(), kSecCSDefaultFlags, &requirement);
  CfOwner<SecRequirementRef> owner(requirement);
  if (status != errSecSuccess) return nullptr;
  return owner;
}

int Verify(const char *path, int item, const char *identifier) {
  int failure = kNone;
  const auto code = StaticCode(path, item, &failure);
  if (code == nullptr) return failure;
  const auto requirement = Requirement(identifier, &failure);
  if (requirement == nullptr) return failure;
  const OSStatus status =
      SecStaticCodeCheckValidity(code.get(), kSecCSCheckAllArchitectures, requirement.get());
  return status == errSecSuccess ? kNone : kInvalid;
}

}  // namespace

Fd Platform_OpenSignedItem(const char *path) {
  return Platform_OpenRegularOrDirectory(AT_FDCWD, path);
}

PlatformSignature Platform_VerifyCodeSignature(const char *path, int item, const char *identifier) {
  // The framework does not tell how much it has looked at.
  return {Verify(path, item, identifier), {UINT64_MAX, UINT64_MAX}, nullptr, 0};
}

void Platform_EndCodeSignatureChecks() {}
