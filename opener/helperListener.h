// helperListener.h -- a Mach service that hands the messages of its clients to one handler.
//
// For a helper program that launchd starts by the name of its service; the opener itself does not
// run it.  Only for hosts that have XPC.
#pragma once

#include <xpc/xpc.h>

// Listens on the Mach service `serviceName` (not null), which the launchd job of the program must
// list, and passes each dictionary that a client sends to `messageHandler` (not null).  Never
// returns: failures are logged and the service keeps running, even if the name is not available.  Call
// it on the main thread, which it ends.
//
// The handler is copied; the caller keeps its own reference.  XPC calls the handler on its queues,
// for several clients concurrently and for each client in order.  The message is borrowed.  Replies are
// the handler's business.  Clients are not authenticated, and the process ids in the log prove nothing,
// since they are reused: a handler that does anything privileged must check its client first.
[[noreturn]] void HelperListener_Run(const char *serviceName, xpc_handler_t messageHandler);
