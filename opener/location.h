// location.h -- where the files of the product are, relative to the running program.
//
// Each program declares once which one it is; this determines how many levels above its executable the
// root of the application bundle is.  No locking: call Location_Init before any look-up.
#pragma once

// Declares the running program: "lumenClient-daemon", "lumenClient-opener" or
// "lumen-remotedisplay-bundle".  Any other tag (not null) is warned about and leaves the process
// undeclared; a second call is warned about and takes effect.
void Location_Init(const char *processTag);

// The absolute path of what `key` (not null) names, as a new string that the caller frees.  The
// path starts from the real path of the executable, all links resolved.
//
// Null, without a record, for an unknown key.  Null, after one warning, if the bundle's root cannot be
// found or if a set-user-ID process has not declared itself.
[[nodiscard]] char *LocationGetRoot(const char *key);

// The path of `key` (not null) below the bundle's root: a constant that begins with "/", or is
// empty for the root itself.  Null for an unknown key.
[[nodiscard]] const char *LocationGetRelative(const char *key);

// The root-owned folder outside the bundle: a constant path without a trailing "/".
[[nodiscard]] const char *Location_GetInstallRoot();

// LocationGetRoot as a value, for library code that must look up folders but cannot depend on the
// opener.
using LocationLookup = char *(*)(const char *key);
[[nodiscard]] LocationLookup Location_GetLookupFunction();
