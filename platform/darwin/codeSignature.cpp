// codeSignature.cpp -- code signatures on macOS, by the Security framework.
//
// The framework looks items up by path.  So when it has finished, the path must still lead to the open
// item, and the item must not have changed.  This misses an item that was replaced and put back in
// between, and changes below the top of a bundle.  That is why the copy, which nobody else can
// change, is checked again.
// Tests: tests/unit/darwin_test.cpp

#include "platform/codeSignature.h"

#include <Security/Security.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <string_view>

#include "platform/darwin/coreFoundation.h"
#include "platform/darwin/signedExtent.h"
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

// Whether `identifier` between quotation marks is a single string of the requirement language, and %s
// below means the same characters in every encoding that the user may have set.
bool CanBeQuoted(std::string_view identifier) {
  return std::ranges::all_of(identifier,
                             [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; });
}

// The code object for the item at `path`, open as `item`; null with *failure set.
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

// The designated requirement for `identifier`; null with *failure set.
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

const char *ReasonOf(int failure) {
  switch (failure) {
    case kCode:
      return "there is nothing that could be signed";
    case kRequirement:
      return "the identifier cannot be asked about";
    case kInvalid:
      return "it is not signed under the identifier by the maker, or has changed";
    default:
      return "its path cannot be expressed";
  }
}

bool IsSameFile(const struct stat &one, const struct stat &other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool IsUnchanged(const struct stat &before, const struct stat &now) {
  return before.st_size == now.st_size && before.st_ctimespec.tv_sec == now.st_ctimespec.tv_sec &&
         before.st_ctimespec.tv_nsec == now.st_ctimespec.tv_nsec;
}

// Whether `path` leads to the open item, and the item has not changed.
bool IsStill(const char *path, int item, const struct stat &before) {
  struct stat named;
  struct stat now;
  return lstat(path, &named) == 0 && IsSameFile(named, before) && fstat(item, &now) == 0 &&
         IsUnchanged(before, now);
}

}  // namespace

Fd Platform_OpenSignedItem(const char *path) {
  return Platform_OpenRegularOrDirectory(AT_FDCWD, path);
}

PlatformSignature Platform_VerifyCodeSignature(const char *path, int item, const char *identifier) {
  struct stat before = {};
  PlatformSignedExtent extent;
  if (item >= 0 && (fstat(item, &before) != 0 || !SignedExtentOf(item, &extent))) {
    const char *const words = "its size cannot be told";
    return {.failure = kInvalid, .obstacle = words, .error = errno, .reason = words};
  }
  int failure = Verify(path, item, identifier);
  if (failure == kNone && !IsStill(path, item, before)) failure = kInvalid;
  if (failure != kNone) return {.failure = failure, .reason = ReasonOf(failure)};
  return {.extent = extent};
}

void Platform_EndCodeSignatureChecks() {}
