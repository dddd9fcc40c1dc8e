// err.h -- what errno values mean, as texts that live as long as the process.
//
// Each value has one text, which is made at its first use and kept in a table.  So a text leads back to
// its value (Err_StringToErrno), and a message that captured such a text can be translated later.
// errno is unchanged by all of these.  Any thread; all threads get the same text for a value.  Exhausted
// memory is fatal.
#pragma once

// The text of `errnoValue`, which belongs to the table; never null.  It is UTF-8 if the host's texts are,
// and never ends within a character.  For a value that the host does not know it is "Unknown error" and
// the value.
[[nodiscard]] const char *Err_ErrnoToString(int errnoValue);

// The text of errno.
[[nodiscard]] const char *Err_ErrString();

// The errno value whose text is at `text` (may be null), or -1.  The address counts, not the bytes: a
// copy of a text is not found.
[[nodiscard]] int Err_StringToErrno(const char *text);
