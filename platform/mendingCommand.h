// mendingCommand.h -- what an operator types to put something right.
//
// The formats are printf's; each %s takes one word that is quoted for the shell.
#pragma once

// Signs an item: a format for the identifier and the path, in this order.
[[nodiscard]] const char *Platform_SigningCommand();

// Makes this machine trust the maker's signatures; null when every machine does.
[[nodiscard]] const char *Platform_TrustCommand();

// Shows which processes have a file open: a format for its path.
[[nodiscard]] const char *Platform_HoldersCommand();

// Ends the processes that have a listening socket of the Unix domain: a format for its path.
[[nodiscard]] const char *Platform_EndListenersCommand();

// Mounts a file system anew: a format for an option of mount(8) and the mount point.
[[nodiscard]] const char *Platform_RemountCommand();
