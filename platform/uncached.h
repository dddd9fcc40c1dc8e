// uncached.h -- open files that bypass the host's cache of file content.
//
// With `synchronous`, each write has reached the device when it returns; without, the host may delay it.
// What the hosts offer:
//   macOS  Reads and writes do not fill the cache (F_NOCACHE); content that is already cached is still
//          used.  Transfers need no alignment, but only aligned ones avoid a copy.
//   Linux  Clean cached content is dropped when the file is opened; later accesses do not mark content
//          as recently used (since 6.3).  O_DIRECT would bypass the cache, but fails for unaligned
//          transfers, so it is not used.  Writes are synchronous by O_SYNC.
#pragma once

// What to add to the flags of open(2).
[[nodiscard]] int Platform_UncachedOpenFlags(bool synchronous);

// Sets up the open file `fd`.  0, or -1 with errno set.  Does nothing for files that are not cached, such
// as FIFOs.
[[nodiscard]] int Platform_SetUncached(int fd, bool synchronous);
