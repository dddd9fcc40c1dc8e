// fileIOFaceInt.h -- what the files of the FileIO layer's face share among themselves.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "lib/public/fileIO.h"

// `access` with one of FILEIO_FLAG_LOCK_PORTABLE and FILEIO_FLAG_LOCK_NATIVE in place of the flags
// that stand for them.
[[nodiscard]] uint32_t FileIONormalizeAccess(uint32_t access);

// Releases the lock and the record; the descriptor stays open.  errno stays.
void FileIOUnlockAndRelease(FileIODescriptor *fd);

// ---- settings (fileIOConfig.cpp) -------------------------------------------------------------

struct FileIOSettings {
  bool coalesceEnable;
  bool coalesceAligned;
  int64_t coalesceCount;
  int64_t coalesceSize;
  int64_t aiomgrNumThreads;
};

// Read at the first call.  Any thread.
[[nodiscard]] const FileIOSettings &FileIOGetSettings();

// ---- buffers (fileIOPool.cpp) ----------------------------------------------------------------

// Returns an aligned buffer to the pool it came from.
struct FileIOAlignedFreer {
  size_t size;  // as asked for
  void operator()(char *buffer) const noexcept;
};
using FileIOAlignedBuffer = std::unique_ptr<char[], FileIOAlignedFreer>;

// `size` uninitialised bytes that begin at a page.  Exhausted memory is fatal.  Any thread.
[[nodiscard]] FileIOAlignedBuffer FileIOAlignedAlloc(size_t size);

// Creates the pool's lock unless it exists.  Any thread.
void FileIOAlignedPrepare();
