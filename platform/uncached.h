// uncached.h -- open files that bypass the host's cache of file content.
//
// With `synchronous`, each write is on the device when it returns; without, the host may hold it
// back for a while.  What the hosts give:
//   macOS  Reads and writes do not fill the cache (F_NOCACHE); content that is in it already is still
//          used.  Nothing has to be aligned, but only aligned transfers are spared a copy.
//   Linux  What is in the cache when the file is opened is dropped, unless it has yet to be written;
//          what comes in later does not count as used again when memory is short (since 6.3).
//          O_DIRECT would bypass it, but refuses transfers that are not aligned, so it is not used.
//          Writes are synchronous by O_SYNC.
#pragma once

// What to add to the flags of open(2).
[[nodiscard]] int Platform_UncachedOpenFlags(bool synchronous);

// Does the rest to the open file `fd`.  0, or -1 with errno.  A file without a cache, as a FIFO, is
// fine.
[[nodiscard]] int Platform_SetUncached(int fd, bool synchronous);
