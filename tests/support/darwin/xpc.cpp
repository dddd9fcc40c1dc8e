// xpc.cpp -- a stand-in for what XPC and libproc tell about events and processes.

#include "tests/support/darwin/xpc.h"

#include <gtest/gtest.h>
#include <libproc.h>

#include <cstdio>
#include <cstring>

const _xpc_type_s _xpc_type_connection{}, _xpc_type_error{}, _xpc_type_dictionary{};
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

int proc_pidpath(int pid, void *buffer, uint32_t size) {
  EXPECT_EQ(4096U, size);  // what macOS takes at most
  memset(buffer, '?', size);
  if (pid == kExitedProcess) return 0;
  return snprintf(static_cast<char *>(buffer), size, "/bin/%d", pid);
}
