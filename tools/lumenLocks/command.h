// command.h -- runs COMMAND under the lock.
#pragma once

#include "tools/lumenLocks/signals.h"

// Runs `command` with all signals as they were when `signals` was made, and kills it when the tool is
// killed, where the host can.  Returns its exit status, or 128 and the number of the signal that ended
// it; kNotFound or kNotExecutable, with a complaint, when it cannot be run.  Signals must be held, and
// are so again afterwards.
int RunCommand(char **command, Signals *signals);
