// startup.h -- what the opener checks and cleans up before it uses its privileges.
#pragma once

// Removes from the environment what would make a shell run code: exported functions (a value that
// begins "() {") and BASH_ENV, ENV and SHELLOPTS, with all other entries of the same names.  Ends the
// process with status 1, without a record, if such an entry has an empty name.  Takes O(n log n) in the
// number of entries, whatever they are.  Like unsetenv(3), not thread-safe.
void ScrubEnvironment();

// Opens /dev/null as those of descriptors 0, 1 and 2 that are closed; ends the process with status 1 if
// that fails.  The hosts do this only for set-user-ID starts, so not if the caller is root.
void FillStandardDescriptors();

// From now on, writing to a pipe without a reader or beyond RLIMIT_FSIZE fails with an error instead of
// a signal.  Daemons started by Hostinfo_Daemonize get the default actions back.
void IgnoreWriteSignals();

// 0 if the file at `path` (not null), links followed, belongs to user 0 and group 0; any other value if
// not, or if stat(2) fails.  Logs nothing.  Any thread.
[[nodiscard]] int CheckRootOwned(const char *path);
