// security.cpp -- a stand-in for the part of the Security framework that darwin code uses, for tests.

#include <Security/Security.h>

#include <string>
#include <utility>

#include "tests/support/darwin/cfObject.h"
#include "tests/support/darwin/coreFoundation.h"

struct __SecCode : CfObject {};
struct __SecRequirement : CfObject {};

namespace {

std::string calls;

void Note(const std::string &call, SecCSFlags flags) {
  calls += call + " " + std::to_string(flags) + "\n";
}

}  // namespace

std::string Security_Calls() {
  return std::exchange(calls, "");
}

// A failing call leaves an object behind now and then: each of these has two ways to fail.

OSStatus SecStaticCodeCreateWithPath(CFURLRef, SecCSFlags flags, SecStaticCodeRef *code) {
  Note("code", flags);
  if (CoreFoundation_CallFails()) return errSecCSStaticCodeNotFound;
  const bool odd = CoreFoundation_CallFails();
  *code = CoreFoundation_CallFails() ? nullptr : new __SecCode;
  return odd ? errSecCSStaticCodeNotFound : errSecSuccess;
}

OSStatus SecRequirementCreateWithString(CFStringRef text, SecCSFlags flags,
                                        SecRequirementRef *requirement) {
  Note("requirement " + CoreFoundation_Text(text), flags);
  if (CoreFoundation_CallFails()) return errSecCSReqInvalid;
  const bool odd = CoreFoundation_CallFails();
  *requirement = CoreFoundation_CallFails() ? nullptr : new __SecRequirement;
  return odd ? errSecCSReqInvalid : errSecSuccess;
}

OSStatus SecStaticCodeCheckValidity(SecStaticCodeRef code, SecCSFlags flags,
                                    SecRequirementRef requirement) {
  Note(code != nullptr && requirement != nullptr ? "check" : "check nothing", flags);
  return CoreFoundation_CallFails() ? errSecCSReqFailed : errSecSuccess;
}
