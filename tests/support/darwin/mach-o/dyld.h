// dyld.h -- see tests/unit/darwin_test.cpp.
#pragma once

#include <cstdint>

int _NSGetExecutablePath(char *buffer, uint32_t *size);
