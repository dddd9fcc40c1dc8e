/* CoreFoundation.h -- the declarations that the cross-build uses; coreFoundation.cpp stands in for
 * the framework. */
#include "cross/darwin/stubs/System/Library/Frameworks/CoreFoundation.framework/Headers/CoreFoundation.h"
