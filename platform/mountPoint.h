// mountPoint.h -- where file systems are mounted.
#pragma once

// Whether a file system is mounted at the directory `path` (not null; absolute, without links).  False
// when the host does not tell, too.
[[nodiscard]] bool Platform_IsMountPoint(const char *path);
