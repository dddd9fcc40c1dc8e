// libproc.h -- a stand-in; tests/unit/helperListener_test.cpp defines it.
#pragma once

#include <cstdint>

int proc_pidpath(int pid, void *buffer, uint32_t size);
