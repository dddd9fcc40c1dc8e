// xpcConnections.cpp -- a stand-in for the connections of XPC and what they do with Blocks.

#include <Block.h>
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <mutex>

#include "tests/support/darwin/xpc.h"

namespace {

// The Blocks run-time library counts references atomically, but ThreadSanitizer does not see it.
std::mutex lock;

XpcObject listener;

}  // namespace

xpc_connection_t Xpc_Listener() {
  return &listener;
}

xpc_connection_t xpc_connection_create_mach_service(const char *name, dispatch_queue_t queue,
                                                    uint64_t flags) {
  EXPECT_STREQ("com.zephrin.helper", name);
  EXPECT_EQ(nullptr, queue);
  EXPECT_EQ(uint64_t{XPC_CONNECTION_MACH_SERVICE_LISTENER}, flags);
  listener = {XPC_TYPE_CONNECTION};
  return &listener;
}

void xpc_connection_set_event_handler(xpc_connection_t connection, xpc_handler_t handler) {
  const std::lock_guard guard(lock);
  EXPECT_FALSE(connection->resumed);
  connection->handler = Block_copy(handler);
}

void xpc_connection_resume(xpc_connection_t connection) {
  const std::lock_guard guard(lock);
  EXPECT_NE(nullptr, connection->handler);
  connection->resumed = true;
}

void Xpc_Deliver(xpc_connection_t connection, xpc_object_t event) {
  xpc_handler_t handler = nullptr;
  {
    const std::lock_guard guard(lock);
    ASSERT_TRUE(connection->resumed);
    handler = Block_copy((xpc_handler_t)connection->handler);
  }
  handler(event);
  const std::lock_guard guard(lock);
  Block_release(handler);
}

void Xpc_Drop(xpc_connection_t connection) {
  const std::lock_guard guard(lock);
  Block_release(connection->handler);
  connection->handler = nullptr;
}

// As on macOS, where it ends the main thread: what its stack held is gone.
void dispatch_main() {
  pthread_exit(nullptr);
}
