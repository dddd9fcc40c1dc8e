// xpc.h -- the part of XPC that the helper listener uses, for tests on other hosts.
#pragma once

#include <sys/types.h>

#include <cstdint>

typedef void *xpc_object_t;
typedef const struct _xpc_type_s *xpc_type_t;
typedef struct XpcObject *xpc_connection_t;
typedef struct dispatch_queue_s *dispatch_queue_t;

extern const struct _xpc_type_s _xpc_type_connection, _xpc_type_error, _xpc_type_dictionary;
#define XPC_TYPE_CONNECTION (&_xpc_type_connection)
#define XPC_TYPE_ERROR (&_xpc_type_error)
#define XPC_TYPE_DICTIONARY (&_xpc_type_dictionary)
extern struct XpcObject _xpc_error_connection_invalid;
#define XPC_ERROR_CONNECTION_INVALID (&_xpc_error_connection_invalid)
#define XPC_ERROR_KEY_DESCRIPTION "XPCErrorDescription"
#define XPC_CONNECTION_MACH_SERVICE_LISTENER (1 << 0)

xpc_type_t xpc_get_type(xpc_object_t object);
const char *xpc_dictionary_get_string(xpc_object_t dictionary, const char *key);
pid_t xpc_connection_get_pid(xpc_connection_t connection);

#ifdef __BLOCKS__
typedef void (^xpc_handler_t)(xpc_object_t object);
xpc_connection_t xpc_connection_create_mach_service(const char *name, dispatch_queue_t queue,
                                                    uint64_t flags);
void xpc_connection_set_event_handler(xpc_connection_t connection, xpc_handler_t handler);
void xpc_connection_resume(xpc_connection_t connection);
#endif
