// helperListenerEvents_test.cpp -- each kind of event, at the listener and at a peer.

#include "opener/helperListenerEvents.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/capture.h"
#include "tests/support/darwin/xpc.h"

namespace {

XpcObject interrupted{XPC_TYPE_ERROR, "Connection interrupted"};
XpcObject message{XPC_TYPE_DICTIONARY};
XpcObject connection{XPC_TYPE_CONNECTION, nullptr, 7};
XpcObject exited{XPC_TYPE_CONNECTION, nullptr, kExitedProcess};

TEST(HelperListenerEvents, ConnectionsAreAdmittedAndDictionariesAreMessages) {
  const struct {
    XpcObject *event;
    const char *atListener, *atPeer;
  } rows[] = {
      {XPC_ERROR_CONNECTION_INVALID,
       "Warning: Listener received unexpected XPC Error: Connection invalid\n",
       "   42: Connection closed by client.\n"},
      {&interrupted, "Warning: Listener received unexpected XPC Error: Connection interrupted\n",
       "Warning:    42: Connection received unexpected XPC Error: Connection interrupted\n"},
      {&message, "Warning: Listener received unexpected event type.\n", ""},
      {&connection, "    7: Received connection from /bin/7\n",
       "Warning:    42: Connection received unexpected event type.\n"},
      {&exited, "  321: Received connection from unknown process\n",
       "Warning:    42: Connection received unexpected event type.\n"},
  };
  for (const auto &row : rows) {
    std::optional<HelperPeer> peer;
    EXPECT_EQ(row.atListener,
              WithoutStamps(CaptureOutput([&] { peer = HelperListenerAdmit(row.event); })));
    ASSERT_EQ(row.event->type == XPC_TYPE_CONNECTION, peer.has_value()) << row.atListener;
    EXPECT_TRUE(!peer || (peer->connection == row.event && peer->pid == row.event->pid));
    EXPECT_EQ(row.atPeer, WithoutStamps(CaptureOutput([&] {
                EXPECT_EQ(row.event == &message, HelperListenerIsMessage(row.event, 42));
              })));
  }
}

}  // namespace
