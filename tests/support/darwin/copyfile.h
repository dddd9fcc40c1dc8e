// copyfile.h -- copies and file flags of macOS; see tests/unit/platformDarwin_test.cpp.
#pragma once

#include <sys/stat.h>

enum { COPYFILE_ALL = 0xf, COPYFILE_NOFOLLOW = 0xc0000 };

int fcopyfile(int from, int to, void *state, unsigned flags);

#define st_flags st_uid  // where a file has flags; on this host it has none
enum : unsigned { UF_IMMUTABLE = 2, UF_APPEND = 4, UF_COMPRESSED = 0x20 };
enum : unsigned { SF_APPEND = 0x40000, SF_IMMUTABLE = 0x20000 };

int fchflags(int fd, unsigned flags);
