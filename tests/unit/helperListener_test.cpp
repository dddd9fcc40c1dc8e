// helperListener_test.cpp -- the listener, its peers, and every reference to their Blocks.

#include "opener/helperListener.h"

#include <Block.h>
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "tests/support/capture.h"
#include "tests/support/darwin/xpc.h"

namespace {

XpcObject listener;
XpcObject message{XPC_TYPE_DICTIONARY};

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

// As on macOS, where it ends the main thread: what its stack held is gone.
void dispatch_main() {
  pthread_exit(nullptr);
}

namespace {

using Tally = std::shared_ptr<std::atomic<int>>;  // its owners are those who hold the handler

[[noreturn]] void Serve(const Tally &borrowed) {
  const Tally tally = borrowed;
  HelperListener_Run("com.zephrin.helper", ^(xpc_object_t received) {
    *tally += received == &message ? 1 : 1000000;
  });
}

TEST(HelperListener, ServesPeersAndGivesUpEveryReference) {
  const Tally tally = std::make_shared<std::atomic<int>>(0);
  XpcObject peers[] = {{XPC_TYPE_CONNECTION, nullptr, 1001}, {XPC_TYPE_CONNECTION, nullptr, 1002}};
  const std::string records = WithoutStamps(CaptureOutput([&] {
    std::thread([&] { Serve(tally); }).join();
    // The listener's copy has it; the caller's Block has gone with its stack.
    EXPECT_EQ(2, tally.use_count());
    for (XpcObject &peer : peers) Deliver(listener, &peer);
    // Peers go on without the listener: each holds the handler by itself.
    Block_release(listener.handler);
    for (XpcObject &peer : peers) {
      Deliver(peer, &message);
      Deliver(peer, XPC_ERROR_CONNECTION_INVALID);
      Block_release(peer.handler);
    }
  }));
  EXPECT_EQ(2, *tally);
  EXPECT_EQ(1, tally.use_count());
  EXPECT_EQ(
      "Starting service: com.zephrin.helper\n"
      " 1001: Received connection from /bin/1001\n"
      " 1002: Received connection from /bin/1002\n"
      " 1001: Connection closed by client.\n"
      " 1002: Connection closed by client.\n",
      records);
}

}  // namespace
