// sysctl.h -- see tests/unit/platformDarwin_test.cpp.
#pragma once

#include <cstddef>

enum { CTL_KERN = 1, KERN_MAXFILESPERPROC = 29 };

int sysctl(int *mib, unsigned length, void *old, size_t *oldLength, void *fresh,
           size_t freshLength);
