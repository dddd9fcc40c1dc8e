// mendingCommand.h -- what an operator types to put something right.
//
// The formats are printf's; each %s takes one word that is quoted for the shell.
#pragma once

// Signs an item: a format for the identifier and the path, in this order.
[[nodiscard]] const char *Platform_SigningCommand();

// Makes this machine trust the maker's signatures; null when every machine does.
[[nodiscard]] const char *Platform_TrustCommand();

// Mounts a file system anew: a format for an option of mount(8) and the mount point.
[[nodiscard]] const char *Platform_RemountCommand();
