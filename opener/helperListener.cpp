// helperListener.cpp -- the Blocks that XPC calls, and what they hold.
//
// Idea:   XPC copies the Blocks that it is given, and a copied Block retains each Block that it
//         captures.  So XPC's copy of the listener's Block retains the message handler, its copy of
//         each peer's Block retains it once more, and both references are released when XPC drops
//         the connection.  Nothing is copied or released by hand.
// Logic:  helperListenerEvents.cpp, which needs no Blocks.
// Tests:  tests/unit/helperListener_test.cpp

#include "opener/helperListener.h"

#include <dispatch/dispatch.h>

#include "lib/public/log.h"
#include "opener/helperListenerEvents.h"

namespace {

// The message handler is only borrowed here; XPC's copy of the Block below retains it.
void ServePeer(const HelperPeer &peer, xpc_handler_t messageHandler) {
  const pid_t pid = peer.pid;
  xpc_connection_set_event_handler(peer.connection, ^(xpc_object_t event) {
    if (HelperListenerIsMessage(event, pid)) messageHandler(event);
  });
  xpc_connection_resume(peer.connection);
}

}  // namespace

void HelperListener_Run(const char *serviceName, xpc_handler_t messageHandler) {
  Log("Starting service: %s\n", serviceName);
  // Never released: the service lives as long as the process.
  xpc_connection_t listener = xpc_connection_create_mach_service(
      serviceName, nullptr, XPC_CONNECTION_MACH_SERVICE_LISTENER);
  xpc_connection_set_event_handler(listener, ^(xpc_object_t event) {
    const std::optional<HelperPeer> peer = HelperListenerAdmit(event);
    if (peer) ServePeer(*peer, messageHandler);
  });
  xpc_connection_resume(listener);
  dispatch_main();
}
