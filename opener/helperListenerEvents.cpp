// helperListenerEvents.cpp -- events of the listener and of its peers: every one but a message is
// logged.
// Tests: tests/unit/helperListener_test.cpp

#include "opener/helperListenerEvents.h"

#include <libproc.h>

#include <cstdint>

#include "lib/public/log.h"

namespace {

// The largest buffer that proc_pidpath accepts, and the smallest that holds every path.
constexpr uint32_t kPathSize = 4096;

// XPC's description; may be null, which the log prints as such.
const char *Description(xpc_object_t error) {
  return xpc_dictionary_get_string(error, XPC_ERROR_KEY_DESCRIPTION);
}

void RecordPeer(pid_t pid) {
  char path[kPathSize];
  const bool known = proc_pidpath(pid, path, sizeof path) > 0;  // fails if it has exited
  Log("%5d: Received connection from %s\n", pid, known ? path : "unknown process");
}

}  // namespace

std::optional<HelperPeer> HelperListenerAdmit(xpc_object_t event) {
  const xpc_type_t type = xpc_get_type(event);
  if (type == XPC_TYPE_ERROR) {
    Warning("Listener received unexpected XPC Error: %s\n", Description(event));
    return std::nullopt;
  }
  if (type != XPC_TYPE_CONNECTION) {
    Warning("Listener received unexpected event type.\n");
    return std::nullopt;
  }
  const auto connection = static_cast<xpc_connection_t>(event);
  const pid_t pid = xpc_connection_get_pid(connection);
  RecordPeer(pid);
  return HelperPeer{connection, pid};
}

bool HelperListenerIsMessage(xpc_object_t event, pid_t pid) {
  const xpc_type_t type = xpc_get_type(event);
  if (type == XPC_TYPE_DICTIONARY) return true;
  if (type != XPC_TYPE_ERROR) {
    Warning("%5d: Connection received unexpected event type.\n", pid);
  } else if (event == XPC_ERROR_CONNECTION_INVALID) {
    Log("%5d: Connection closed by client.\n", pid);
  } else {
    Warning("%5d: Connection received unexpected XPC Error: %s\n", pid, Description(event));
  }
  return false;
}
