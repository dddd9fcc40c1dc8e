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

// A failing call leaves an object behind now and then: creating has three ways to fail.
template <typename Object, typename Ref>
static OSStatus Create(Ref *object, OSStatus error) {
  if (CoreFoundation_CallFails()) return error;
  const bool odd = CoreFoundation_CallFails();
  *object = CoreFoundation_CallFails() ? nullptr : new Object;
  return odd ? error : OSStatus{errSecSuccess};
}

OSStatus SecStaticCodeCreateWithPath(CFURLRef, SecCSFlags flags, SecStaticCodeRef *code) {
  Note("code", flags);
  return Create<__SecCode>(code, errSecCSStaticCodeNotFound);
}

OSStatus SecRequirementCreateWithString(CFStringRef text, SecCSFlags flags,
                                        SecRequirementRef *requirement) {
  Note("requirement " + CoreFoundation_Text(text), flags);
  return Create<__SecRequirement>(requirement, errSecCSReqInvalid);
}

OSStatus SecStaticCodeCheckValidity(SecStaticCodeRef code, SecCSFlags flags,
                                    SecRequirementRef requirement) {
  Note(code != nullptr && requirement != nullptr ? "check" : "check nothing", flags);
  return CoreFoundation_CallFails() ? errSecCSReqFailed : errSecSuccess;
}
