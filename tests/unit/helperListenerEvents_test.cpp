// helperListenerEvents_test.cpp -- each kind of event, at the listener and at a peer.

#include "opener/helperListenerEvents.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

#include "tests/support/capture.h"
#include "tests/support/darwin/xpc.h"

namespace {

XpcObject *const closed = XPC_ERROR_CONNECTION_INVALID;
XpcObject interrupted{XPC_TYPE_ERROR, "Connection interrupted"};
XpcObject wordless{XPC_TYPE_ERROR};
XpcObject message{XPC_TYPE_DICTIONARY};
XpcObject connection{XPC_TYPE_CONNECTION, nullptr, 7};
XpcObject exited{XPC_TYPE_CONNECTION, nullptr, kExitedProcess};
XpcObject distant{XPC_TYPE_CONNECTION, nullptr, 1234567};

struct Row {
  XpcObject *event;
  const char *record;
};

TEST(HelperListenerEvents, TheListenerAdmitsConnectionsAndNothingElse) {
  for (const Row &row : std::initializer_list<Row>{
           {closed, "Warning: Listener received unexpected XPC Error: Connection invalid\n"},
           {&wordless, "Warning: Listener received unexpected XPC Error: (null)\n"},
           {&message, "Warning: Listener received unexpected event type.\n"},
           {&connection, "    7: Received connection from /bin/7\n"},
           {&exited, "  321: Received connection from unknown process\n"},
           {&distant, "1234567: Received connection from /bin/1234567\n"}}) {
    std::optional<HelperPeer> peer;
    const std::string records = CaptureOutput([&] { peer = HelperListenerAdmit(row.event); });
    EXPECT_EQ(row.record, WithoutStamps(records));
    ASSERT_EQ(row.event->type == XPC_TYPE_CONNECTION, peer.has_value()) << row.record;
    EXPECT_TRUE(!peer || (peer->connection == row.event && peer->pid == row.event->pid));
  }
}

TEST(HelperListenerEvents, OnlyDictionariesOfAPeerAreMessages) {
  for (const Row &row : std::initializer_list<Row>{
           {closed, "   42: Connection closed by client.\n"},
           {&interrupted,
            "Warning:    42: Connection received unexpected XPC Error: "
            "Connection interrupted\n"},
           {&connection, "Warning:    42: Connection received unexpected event type.\n"},
           {&message, ""}}) {
    bool isMessage = false;
    const std::string records =
        CaptureOutput([&] { isMessage = HelperListenerIsMessage(row.event, 42); });
    EXPECT_EQ(row.record, WithoutStamps(records));
    EXPECT_EQ(row.event == &message, isMessage) << row.record;
  }
}

}  // namespace
