// helperListenerEvents.h -- what the helper listener makes of each event that XPC hands it.
//
// Apart from the Blocks of helperListener.cpp, so that any compiler takes it.  Any thread may call
// these.  Events are borrowed.
#pragma once

#include <sys/types.h>
#include <xpc/xpc.h>

#include <optional>

struct HelperPeer {
  xpc_connection_t connection;  // XPC's own; not resumed yet, without a handler
  pid_t pid;                    // as it was when the connection came
};

// The client whose connection `event` is, after a record of its process.  Nothing, after a warning,
// when the listener was handed anything else.
[[nodiscard]] std::optional<HelperPeer> HelperListenerAdmit(xpc_object_t event);

// Whether `event`, which came over the connection of the process `pid`, is for the message handler.
// False after a record of what it is instead: the end of the connection, or a surprise.
[[nodiscard]] bool HelperListenerIsMessage(xpc_object_t event, pid_t pid);
