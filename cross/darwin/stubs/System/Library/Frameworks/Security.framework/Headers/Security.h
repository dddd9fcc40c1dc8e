/* Security.h -- what this tree uses of the Security framework, declared for cross-building.
 *
 * Names, types and values are those of macOS 10.15.  Objects that come back through a pointer
 * belong to the caller, who releases them with CFRelease.  Security.tbd beside this folder lists
 * the symbols: who adds a function here adds it there.
 */
#ifndef SECURITY_H
#define SECURITY_H

#include <CoreFoundation/CoreFoundation.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef const struct __SecCode *SecStaticCodeRef;
typedef struct __SecRequirement *SecRequirementRef;

typedef uint32_t SecCSFlags;
enum { kSecCSDefaultFlags = 0, kSecCSCheckAllArchitectures = 1 << 0 };

enum {
  errSecSuccess = 0,
  errSecCSUnsigned = -67062,
  errSecCSStaticCodeNotFound = -67068,
  errSecCSReqFailed = -67050,
  errSecCSReqInvalid = -67052
};

/* Succeeds for code without a signature, too. */
OSStatus SecStaticCodeCreateWithPath(CFURLRef path, SecCSFlags flags, SecStaticCodeRef *code);
OSStatus SecRequirementCreateWithString(CFStringRef text, SecCSFlags flags,
                                        SecRequirementRef *requirement);
/* `requirement` may be null. */
OSStatus SecStaticCodeCheckValidity(SecStaticCodeRef code, SecCSFlags flags,
                                    SecRequirementRef requirement);

#ifdef __cplusplus
}
#endif

#endif
