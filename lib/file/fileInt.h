// fileInt.h -- what the modules of the file library share among themselves.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "file.h"

struct FileData {
  int64_t fileAccessTime;
  int64_t fileCreationTime;
  int64_t fileModificationTime;
  int64_t fileSize;
  FileType fileType;
  uint32_t fileMode;
  uint32_t fileOwner;
  uint32_t fileGroup;
};

// errno-style results: 0, or what stat, mkdir, unlink said.
[[nodiscard]] int FileAttributes(const char *path, FileData *out);
[[nodiscard]] int FileCreateDirectory(const char *path, int mode);
int FileDeletePath(const char *path, bool handleLink);

[[nodiscard]] char *FileFindExistingPrefix(const char *path);
