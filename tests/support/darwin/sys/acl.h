// acl.h -- a stand-in; tests/unit/darwin_test.cpp defines it.
#pragma once

using acl_t = struct _acl *;
enum acl_type_t { ACL_TYPE_EXTENDED = 0x100 };

acl_t acl_init(int count);
int acl_free(void *acl);
int acl_set_fd_np(int fd, acl_t acl, acl_type_t type);
