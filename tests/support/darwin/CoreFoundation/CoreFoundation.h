/* CoreFoundation.h -- the declarations that the cross-build uses; frameworks.cpp stands in for
 * the framework. */
#include "cross/darwin/stubs/System/Library/Frameworks/CoreFoundation.framework/Headers/CoreFoundation.h"

/* Constant strings are the compiler's work, but for macOS only. */
#undef CFSTR
#define CFSTR(text) CoreFoundation_Constant(text)
CFStringRef CoreFoundation_Constant(const char *text);
