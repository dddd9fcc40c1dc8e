// err.h -- what errno values mean, as texts that live as long as the process.
//
// Each value has one text, made at its first use and kept in a table, so that a text also tells
// its value (Err_StringToErrno): a message that captured such a text can be translated later.
// errno is unchanged by all of these.  Any thread; all get the same text for a value.  Exhausted
// memory is fatal.
#pragma once

// The text of `errnoValue`, which the table keeps: never freed by the caller, never null, UTF-8 as
// far as the host's texts are, but never cut within a character.  A value that the host does not know
// gives "Unknown error" and the value.
[[nodiscard]] const char *Err_ErrnoToString(int errnoValue);

// The text of errno.
[[nodiscard]] const char *Err_ErrString();

// The errno value that `text` (may be null) was given out for, or -1.  The pointer counts, not the
// bytes: a copy of a text is unknown.
[[nodiscard]] int Err_StringToErrno(const char *text);
