// libproc.h -- see xpc.cpp.
#pragma once

#include <cstdint>

int proc_pidpath(int pid, void *buffer, uint32_t size);
