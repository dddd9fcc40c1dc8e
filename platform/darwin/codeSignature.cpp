// codeSignature.cpp -- code signatures on macOS, by the Security framework.

#include "platform/codeSignature.h"

#include <Security/Security.h>

#include <algorithm>
#include <string_view>

#include "platform/darwin/coreFoundation.h"

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

// The code object of what is at `path`; null with *failure.
CfOwner<SecStaticCodeRef> StaticCode(const char *path, int *failure) {
  *failure = kPath;
  const auto string = CfPathString(path);
  if (string == nullptr) return nullptr;
  *failure = kUrl;
  const auto url = CfPathUrl(string.get());
  if (url == nullptr) return nullptr;
  *failure = kCode;
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

}  // namespace

int Platform_VerifyCodeSignature(const char *path, const char *identifier) {
  int failure = kNone;
  const auto code = StaticCode(path, &failure);
  if (code == nullptr) return failure;
  const auto requirement = Requirement(identifier, &failure);
  if (requirement == nullptr) return failure;
  const OSStatus status =
      SecStaticCodeCheckValidity(code.get(), kSecCSCheckAllArchitectures, requirement.get());
  return status == errSecSuccess ? kNone : kInvalid;
}
