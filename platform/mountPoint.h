// mountPoint.h -- where and how file systems are mounted.
#pragma once

// Whether a file system is mounted at the directory `path` (not null; absolute, without links).  False
// when the host does not tell, too.
[[nodiscard]] bool Platform_IsMountPoint(const char *path);

// Whether no program on the file system of `path` (not null) can be executed.  False when the host does
// not tell, too.
[[nodiscard]] bool Platform_IsMountedNoexec(const char *path);
