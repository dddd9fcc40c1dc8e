// posix.h -- system calls that return paths, with UTF-8 strings.
#pragma once

// The absolute path of `path` (not null, UTF-8) without links, "." and "..", as realpath(3) finds
// it, in a new string that the caller frees.  Null with errno set as realpath left it; ERANGE when
// `path` is not UTF-8, EILSEQ when the result is not.  On success errno is unchanged.  Any thread.
[[nodiscard]] char *Posix_RealPath(const char *path);

// The target of the symbolic link `path` (not null, UTF-8), whatever its length, in a new string
// that the caller frees.  Null with errno as for Posix_RealPath; EINVAL when `path` is not a link.
// Any thread.
[[nodiscard]] char *Posix_ReadLink(const char *path);

// The same for a `path` relative to the directory that is open as `dir`, without conversion: path and
// target are the system's bytes, UTF-8 or not.  errno is then that of readlinkat(2).
[[nodiscard]] char *Posix_ReadLinkAt(int dir, const char *path);
