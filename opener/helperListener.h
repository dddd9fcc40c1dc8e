// helperListener.h -- a Mach service that hands the messages of its clients to one handler.
//
// For a helper program that launchd starts by the name of its service; the opener itself does not
// run it.  Only for hosts that have XPC.
#pragma once

#include <xpc/xpc.h>

// Listens on the Mach service `serviceName` (not null), which the launchd job of the program must
// list, and passes each dictionary that a client sends to `messageHandler` (not null).  Never
// returns; failures are recorded and the service goes on, also when the name cannot be had.  Only on
// the main thread, which it ends.
//
// The handler is copied; the caller's reference stays the caller's.  It is called on XPC's queues,
// for several clients at the same time and for one client in order.  It borrows the message.  Nobody
// answers but the handler, and nobody has asked who the client is: the process ids in the records
// are no proof, as they are used again.  A handler that does something privileged checks its client
// first.
[[noreturn]] void HelperListener_Run(const char *serviceName, xpc_handler_t messageHandler);
