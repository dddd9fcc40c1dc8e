// displayText.h -- untrusted text made fit for a terminal, a log or JSON.
//
// A text is any bytes up to its NUL (not null).  The result is a new string that the caller frees; never
// null, exhausted memory is fatal.  Any thread.
#pragma once

// One line of UTF-8 that no terminal takes for a command: control characters (C0, DEL, C1) and, unless
// the whole text is UTF-8, all bytes beyond ASCII become '?'.
[[nodiscard]] char *DisplayText_Line(const char *text);

// A JSON string (RFC 8259), quotes included, in which the same control characters are escaped.  Of a text
// that is not UTF-8, each byte beyond ASCII becomes U+FFFD.
[[nodiscard]] char *DisplayText_Json(const char *text);
