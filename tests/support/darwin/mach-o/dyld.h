// dyld.h -- see tests/unit/platformDarwin_test.cpp.
#pragma once

#include <cstdint>

int _NSGetExecutablePath(char *buffer, uint32_t *size);
