// sealItem.h -- what a seal can be for: a regular file or a directory.
#pragma once

#include "fd.h"

// Opens the regular file or directory `path` for reading; the last component is no symbolic link.
// Empty with errno set; ENOTSUP for another kind of file.
[[nodiscard]] Fd SealOpenItem(const char *path);

// Whether the open item is a directory.
[[nodiscard]] bool SealIsDirectory(int item);
