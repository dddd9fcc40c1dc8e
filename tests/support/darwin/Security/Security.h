/* Security.h -- the declarations that the cross-build uses; frameworks.cpp stands in for the
 * framework. */
#include "cross/darwin/stubs/System/Library/Frameworks/Security.framework/Headers/Security.h"
