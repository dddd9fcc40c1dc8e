// sealJail.h -- gives up all rights but reading.
#pragma once

// From now on the calling process can read files and use its open descriptors, and nothing else.  For a
// process with one thread that was started for this purpose.  In this order:
//
//   limits       memory, processor time, descriptors; no written files, no core dumps, no processes
//   identity     user and group 65534, no other groups, no capability but CAP_DAC_READ_SEARCH; no
//                way back, not even by exec
//   outside      no debugger can attach; the process dies with its parent
//   system calls those of sealJailCalls.cpp; any other one ends the process at once, by SIGSYS
//
// A process that is not root keeps its identity.  False with errno set if something cannot be given up;
// the process must then end.
[[nodiscard]] bool SealJailEnter();

// The last of these steps (sealJailCalls.cpp).
[[nodiscard]] bool SealJailFilterCalls();
