// uuid.h -- a text that identifies the host in places that several hosts share, such as lock files.
//
// Sixteen bytes as two lower-case hexadecimal digits each, blanks between them and "-" in the
// middle: "52 xx xx xx xx xx xx xx-xx xx xx xx xx xx xx xx".  They come from the SHA-1 of the
// hardware identifier of Hostinfo_MachineID or, where there is none, of its host-name hash.  The first
// byte, 52, marks such an origin.  Computed once per process.  Any thread.
#pragma once

// The text, which lives as long as the process; null when the host refuses SHA-1.
[[nodiscard]] const char *UUID_HostString();

// A copy that the caller frees; null when there is no text.
[[nodiscard]] char *UUID_GetHostString();
