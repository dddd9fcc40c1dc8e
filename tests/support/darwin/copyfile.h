// copyfile.h -- a stand-in for copies and file flags of macOS; tests/unit/darwin_test.cpp defines it.
#pragma once

#include <sys/stat.h>

enum { COPYFILE_ALL = 0xf, COPYFILE_NOFOLLOW = 0xc0000 };
enum { COPYFILE_STATE_STATUS_CB = 6, COPYFILE_STATE_STATUS_CTX = 7, COPYFILE_STATE_COPIED = 8 };
enum { COPYFILE_COPY_DATA = 4, COPYFILE_COPY_XATTR = 5 };
enum { COPYFILE_START = 1, COPYFILE_FINISH = 2, COPYFILE_ERR = 3, COPYFILE_PROGRESS = 4 };
enum { COPYFILE_CONTINUE = 0, COPYFILE_SKIP = 1, COPYFILE_QUIT = 2 };

using copyfile_state_t = struct _copyfile_state *;
using copyfile_callback_t = int (*)(int what, int stage, copyfile_state_t state, const char *from,
                                    const char *to, void *context);

copyfile_state_t copyfile_state_alloc();
int copyfile_state_free(copyfile_state_t state);
int copyfile_state_get(copyfile_state_t state, unsigned flag, void *to);
int copyfile_state_set(copyfile_state_t state, unsigned flag, const void *from);
int fcopyfile(int from, int to, copyfile_state_t state, unsigned flags);

#define st_flags st_uid  // this host's struct stat has no flags
enum : unsigned { UF_IMMUTABLE = 2, UF_APPEND = 4, UF_COMPRESSED = 0x20 };
enum : unsigned { SF_APPEND = 0x40000, SF_IMMUTABLE = 0x20000 };

int fchflags(int fd, unsigned flags);
