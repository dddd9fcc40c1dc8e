// helperListener_test.cpp -- how the helper listener handles each event; and, if the compiler has Blocks,
// several peers and all references to the Blocks.

#include <libproc.h>

#include <optional>

#include "opener/helperListenerEvents.h"
#include "tests/support/test.h"

// ---- a stand-in for XPC, as far as events go ---------------------------------------------------

struct _xpc_type_s {
  int unused;
};
const _xpc_type_s _xpc_type_connection{}, _xpc_type_error{}, _xpc_type_dictionary{};

struct XpcObject {
  xpc_type_t type;
  const char *description = nullptr;  // an error's
  pid_t pid = 0;                      // a connection's, like all below
  const void *handler = nullptr;      // a Block
  bool resumed = false;
};

XpcObject _xpc_error_connection_invalid{XPC_TYPE_ERROR, "Connection invalid"};

xpc_type_t xpc_get_type(xpc_object_t object) {
  return static_cast<XpcObject *>(object)->type;
}

const char *xpc_dictionary_get_string(xpc_object_t dictionary, const char *key) {
  EXPECT_STREQ(XPC_ERROR_KEY_DESCRIPTION, key);
  return static_cast<XpcObject *>(dictionary)->description;
}

pid_t xpc_connection_get_pid(xpc_connection_t connection) {
  EXPECT_EQ(XPC_TYPE_CONNECTION, connection->type);
  return connection->pid;
}

// Process 321 has exited.
int proc_pidpath(int pid, void *buffer, uint32_t size) {
  EXPECT_EQ(4096U, size);  // the most that macOS accepts
  memset(buffer, '?', size);
  return pid == 321 ? 0 : snprintf(static_cast<char *>(buffer), size, "/bin/%d", pid);
}

namespace {

XpcObject interrupted{XPC_TYPE_ERROR, "Connection interrupted"};
XpcObject message{XPC_TYPE_DICTIONARY};
XpcObject number{nullptr};  // of an unexpected type

TEST(HelperListenerEvents, ConnectionsAreAdmittedAndDictionariesAreMessages) {
  XpcObject connection{XPC_TYPE_CONNECTION, nullptr, 7};
  XpcObject exited{XPC_TYPE_CONNECTION, nullptr, 321};
  const std::string unexpected = "Warning:    42: Connection received unexpected event type.\n";
  const struct {
    XpcObject *event;
    std::string atListener, atPeer;
  } rows[] = {
      {XPC_ERROR_CONNECTION_INVALID,
       "Warning: Listener received unexpected XPC Error: Connection invalid\n",
       "   42: Connection closed by client.\n"},
      {&interrupted, "Warning: Listener received unexpected XPC Error: Connection interrupted\n",
       "Warning:    42: Connection received unexpected XPC Error: Connection interrupted\n"},
      {&message, "Warning: Listener received unexpected event type.\n", ""},
      {&number, "Warning: Listener received unexpected event type.\n", unexpected},
      {&connection, "    7: Received connection from /bin/7\n", unexpected},
      {&exited, "  321: Received connection from unknown process\n", unexpected},
  };
  for (const auto &row : rows) {
    std::optional<HelperPeer> peer;
    EXPECT_EQ(row.atListener, LogOf([&] { peer = HelperListenerAdmit(row.event); }));
    ASSERT_EQ(row.event->type == XPC_TYPE_CONNECTION, peer.has_value()) << row.atListener;
    EXPECT_TRUE(!peer || (peer->connection == row.event && peer->pid == row.event->pid));
    EXPECT_EQ(row.atPeer, LogOf([&] {
                EXPECT_EQ(row.event == &message, HelperListenerIsMessage(row.event, 42));
              }));
  }
}

}  // namespace

#ifndef __BLOCKS__
TEST(HelperListener, ServesPeersAndGivesUpEveryReference) {
  GTEST_SKIP() << "this compiler has no Blocks";
}
#else
#include <Block.h>
#include <dispatch/dispatch.h>
#include <pthread.h>

#include <memory>

#include "opener/helperListener.h"

namespace {

XpcObject listener;

void Deliver(const XpcObject &connection, xpc_object_t event) {
  ASSERT_TRUE(connection.resumed);
  ((xpc_handler_t)connection.handler)(event);
}

}  // namespace

// ---- the connections of XPC, and what they do with Blocks --------------------------------------

xpc_connection_t xpc_connection_create_mach_service(const char *name, dispatch_queue_t queue,
                                                    uint64_t flags) {
  EXPECT_STREQ("com.zephrin.helper", name);
  EXPECT_TRUE(queue == nullptr && flags == XPC_CONNECTION_MACH_SERVICE_LISTENER);
  listener = {XPC_TYPE_CONNECTION};
  return &listener;
}

void xpc_connection_set_event_handler(xpc_connection_t connection, xpc_handler_t handler) {
  EXPECT_FALSE(connection->resumed);
  connection->handler = Block_copy(handler);
}

void xpc_connection_resume(xpc_connection_t connection) {
  EXPECT_NE(nullptr, connection->handler);
  connection->resumed = true;
}

// Ends the main thread, as on macOS, and with it what its stack held.
void dispatch_main() {
  pthread_exit(nullptr);
}

namespace {

TEST(HelperListener, ServesPeersAndGivesUpEveryReference) {
  const auto tally = std::make_shared<int>(0);  // owned by each copy of the handler
  XpcObject peers[] = {{XPC_TYPE_CONNECTION, nullptr, 1001},
                       {XPC_TYPE_CONNECTION, nullptr, 123456}};
  EXPECT_EQ(
      "Starting service: com.zephrin.helper\n"
      "Warning: Listener received unexpected XPC Error: Connection interrupted\n"
      " 1001: Received connection from /bin/1001\n"
      "123456: Received connection from /bin/123456\n"
      " 1001: Connection closed by client.\n"
      "123456: Connection closed by client.\n",
      LogOf([&] {
        std::thread([&] {
          const std::shared_ptr<int> mine = tally;
          HelperListener_Run("com.zephrin.helper", ^(xpc_object_t received) {
            *mine += received == &message ? 1 : 1000;
          });
        }).join();
        // The listener's copy owns it; the caller's Block was on the stack that is gone.
        EXPECT_EQ(2, tally.use_count());
        Deliver(listener, &interrupted);
        for (XpcObject &peer : peers) Deliver(listener, &peer);
        // Peers do not need the listener: each one retains the handler itself.
        Block_release(listener.handler);
        EXPECT_EQ(2, tally.use_count());
        for (const XpcObject &peer : peers) {
          Deliver(peer, &message);
          Deliver(peer, XPC_ERROR_CONNECTION_INVALID);
          Block_release(peer.handler);
        }
      }));
  EXPECT_EQ(2, *tally);
  EXPECT_EQ(1, tally.use_count());
}

}  // namespace
#endif
