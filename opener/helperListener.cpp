// helperListener.cpp -- the Blocks that XPC calls, and what they hold.
//
// Idea:   a Block is copied by who keeps it, and a copy takes a reference to each Block that it
//         captures.  So XPC's copy of the listener's Block holds the message handler, its copy of
//         each peer's Block holds it once more, and each reference goes when XPC drops the
//         connection.  Nothing is copied or released by hand.
// Logic:  helperListenerEvents.cpp, which needs no Blocks.
// Tests:  tests/unit/helperListener_test.cpp

#include "opener/helperListener.h"

#include <dispatch/dispatch.h>

#include "lib/public/log.h"
#include "opener/helperListenerEvents.h"

namespace {

// The message handler may still be borrowed here: it is the copy of the Block below that holds it.
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
  // Owned, and never released: the service lasts as long as the process.
  xpc_connection_t listener = xpc_connection_create_mach_service(
      serviceName, nullptr, XPC_CONNECTION_MACH_SERVICE_LISTENER);
  xpc_connection_set_event_handler(listener, ^(xpc_object_t event) {
    const std::optional<HelperPeer> peer = HelperListenerAdmit(event);
    if (peer) ServePeer(*peer, messageHandler);
  });
  xpc_connection_resume(listener);
  dispatch_main();
}
