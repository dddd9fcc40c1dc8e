// dyld.h -- a stand-in; tests/unit/darwin_test.cpp defines it.
#pragma once

#include <cstdint>

int _NSGetExecutablePath(char *buffer, uint32_t *size);
