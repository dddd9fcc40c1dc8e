// location.h -- where the files of the product lie, seen from the running program.
//
// A program says once which program it is; that fixes how far above its executable the root of the
// application bundle is.  Not locked: Location_Init runs before any look-up.
#pragma once

// Declares the running program: "lumenClient-daemon", "lumenClient-opener" or
// "lumen-remotedisplay-bundle".  Any other tag (not null) leaves the process without one, after a
// warning; a second call takes effect, after a warning.
void Location_Init(const char *processTag);

// The absolute path of what `key` (not null) names, as a new string that the caller frees.  The
// path starts from the real path of the executable, all links resolved.
//
// Null for an unknown key, silently; otherwise null after one warning: when the bundle's root
// cannot be found, or when a set-user-ID process asks without having declared itself.
[[nodiscard]] char *LocationGetRoot(const char *key);

// The path of `key` (not null) below the bundle's root: a constant that begins with "/", or is
// empty for the root itself.  Null for an unknown key.
[[nodiscard]] const char *LocationGetRelative(const char *key);

// The root-owned folder outside the bundle: a constant path, without "/" at its end.
[[nodiscard]] const char *Location_GetInstallRoot();

// LocationGetRoot as a value, for library code that looks up its folders without knowing the
// opener.
using LocationLookup = char *(*)(const char *key);
[[nodiscard]] LocationLookup Location_GetLookupFunction();
