/* CoreFoundation.h -- what this tree uses of CoreFoundation, declared for cross-building.
 *
 * Names, types and values are those of macOS 10.15.  Results of functions named Create or Copy
 * belong to the caller, who releases them with CFRelease; results of Get functions do not.
 * CoreFoundation.tbd beside this folder lists the symbols: who adds a function here adds it there.
 */
#ifndef COREFOUNDATION_H
#define COREFOUNDATION_H

#include <MacTypes.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef signed long CFIndex;
typedef const void *CFTypeRef;
typedef unsigned long CFTypeID;

typedef const struct __CFAllocator *CFAllocatorRef;
typedef const struct __CFString *CFStringRef;
typedef struct __CFString *CFMutableStringRef;
typedef const struct __CFDictionary *CFDictionaryRef;
typedef const struct __CFURL *CFURLRef;
typedef struct __CFBundle *CFBundleRef;

enum { kCFNotFound = -1 };

extern const CFAllocatorRef kCFAllocatorDefault; /* null means the same */

void CFRelease(CFTypeRef object);       /* not null */
CFTypeID CFGetTypeID(CFTypeRef object); /* not null */

/* ---- strings ---- */

typedef UInt32 CFStringEncoding;
enum { kCFStringEncodingUTF8 = 0x08000100 };

typedef CFIndex CFStringNormalizationForm;
enum {
  kCFStringNormalizationFormD = 0,
  kCFStringNormalizationFormKD = 1,
  kCFStringNormalizationFormC = 2,
  kCFStringNormalizationFormKC = 3
};

/* A constant object, which need not be released. */
#define CFSTR(text) ((CFStringRef)__builtin___CFStringMakeConstantString("" text ""))

CFTypeID CFStringGetTypeID(void);
/* Null for bytes that are invalid in the encoding. */
CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char *bytes,
                                      CFStringEncoding encoding);
CFStringRef CFStringCreateWithFormat(CFAllocatorRef allocator, CFDictionaryRef options,
                                     CFStringRef format, ...);
/* maxLength 0: no limit. */
CFMutableStringRef CFStringCreateMutableCopy(CFAllocatorRef allocator, CFIndex maxLength,
                                             CFStringRef string);
void CFStringNormalize(CFMutableStringRef string, CFStringNormalizationForm form);
/* In UTF-16 units. */
CFIndex CFStringGetLength(CFStringRef string);
const char *CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding);
/* `size` counts the NUL. */
Boolean CFStringGetCString(CFStringRef string, char *buffer, CFIndex size,
                           CFStringEncoding encoding);
/* Without the NUL; kCFNotFound when it cannot be expressed. */
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex length, CFStringEncoding encoding);

/* ---- bundles ---- */

typedef CFIndex CFURLPathStyle;
enum { kCFURLPOSIXPathStyle = 0 };

CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef allocator, CFStringRef path,
                                       CFURLPathStyle style, Boolean isDirectory);
/* Null when nothing is there. */
CFBundleRef CFBundleCreate(CFAllocatorRef allocator, CFURLRef url);
/* Null when the bundle has none; otherwise what its property list has there, of whatever type. */
CFStringRef CFBundleGetIdentifier(CFBundleRef bundle);

#ifdef __cplusplus
}
#endif

#endif
