// helperListenerEvents.h -- how the helper listener handles each event from XPC.
//
// Kept apart from the Blocks of helperListener.cpp, so that any compiler accepts it.  Any thread may
// call these.  Events are borrowed.
#pragma once

#include <sys/types.h>
#include <xpc/xpc.h>

#include <optional>

struct HelperPeer {
  xpc_connection_t connection;  // owned by XPC; not resumed yet, without a handler
  pid_t pid;                    // at the time of the connection
};

// If `event` is a client's new connection, logs the client's process and returns both.  Warns about
// any other event and returns nothing.
[[nodiscard]] std::optional<HelperPeer> HelperListenerAdmit(xpc_object_t event);

// Whether `event`, received on the connection of the process `pid`, is a message for the handler.
// Any other event is logged: the end of the connection, or something unexpected.
[[nodiscard]] bool HelperListenerIsMessage(xpc_object_t event, pid_t pid);
