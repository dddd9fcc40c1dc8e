// startup.h -- what the opener checks and cleans before it does anything with its privileges.
#pragma once

// Removes from the environment what would make a shell run code: exported functions (a value that
// begins "() {") and BASH_ENV, ENV and SHELLOPTS, with all other entries of the same names.  Ends the
// process with status 1, silently, when such an entry has an empty name.  As good as linear in the
// size of the environment, whatever is in it.  Not thread-safe, as unsetenv(3).
void ScrubEnvironment();

// Opens /dev/null on those of 0, 1 and 2 that are closed; ends the process with status 1 when that
// fails.  The hosts do it only for a set-user-ID start: not when the caller is root.
void FillStandardDescriptors();

// From now on writing to a pipe without a reader, or beyond the limit of a file's size, is an error and
// no signal.  A daemon that Hostinfo_Daemonize starts has the default actions again.
void IgnoreWriteSignals();

// 0 when the file that `path` (not null) leads to, links followed, belongs to user 0 and group 0;
// any other value when not, or when stat(2) fails.  Logs nothing.  Any thread.
[[nodiscard]] int CheckRootOwned(const char *path);
