// fileCopy.cpp -- copying an open file with all its metadata, on macOS: one call does it.

#include <copyfile.h>

#include "platform/files.h"

bool Platform_CopyFileWithMetadata(int from, int to) {
  return fcopyfile(from, to, nullptr, COPYFILE_ALL | COPYFILE_NOFOLLOW) == 0;
}
