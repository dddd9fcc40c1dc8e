// fileIOInt.h -- what the files of the FileIO layer share among themselves.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "fileIO.h"

// No transfer is larger; macOS refuses more than that with EINVAL.
inline constexpr size_t kFileIOMaxRequest = 0x7FFFFFFF;

// The code of an errno value.
[[nodiscard]] FileIOResult FileIOResultOfErrno(int errnoValue);

// The code of errno; when that is FILEIO_ERROR, logs `format`, which takes the path and the text of
// errno.  errno stays.
[[nodiscard]] FileIOResult FileIOReport(const char *format, const char *path);

// `access` with one of FILEIO_FLAG_LOCK_PORTABLE and FILEIO_FLAG_LOCK_NATIVE in place of the flags
// that stand for them.
[[nodiscard]] uint32_t FileIONormalizeAccess(uint32_t access);

// Releases the lock, frees the name and makes *fd invalid; the descriptor stays open.  errno stays.
void FileIOForget(FileIODescriptor *fd);

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

// `size` bytes that begin at a page, with what an earlier user left in them.  Exhausted memory is
// fatal.  Any thread.
[[nodiscard]] FileIOAlignedBuffer FileIOAlignedAlloc(size_t size);

// Makes the pool's lock unless that was done.  Any thread.
void FileIOAlignedPrepare();
