// sealJail.h -- giving up all rights but reading.
#pragma once

// Makes the calling process one that may read files and use its open descriptors, and nothing else.
// For a process with one thread that was started for this.  In this order:
//
//   limits       memory, processor time, descriptors; no files written, no core, no processes
//   identity     user and group 65534, no other groups, no capability but CAP_DAC_READ_SEARCH; no
//                way back, not by exec either
//   outside      no debugger attaches; the death of the process that started it is its own
//   system calls those of sealJailCalls.cpp; any other ends the process at once, by SIGSYS
//
// What the process does not have it cannot give up: without root it keeps its identity.  False with
// errno set when something cannot be given up; the process should then end.
[[nodiscard]] bool SealJailEnter();

// The last of the steps.  sealJailCalls.cpp
[[nodiscard]] bool SealJailFilterCalls();
