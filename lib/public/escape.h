// escape.h -- bytes written as an escape text and two hexadecimal digits, quoting, and the ways
// back.
//
// Data are any bytes, NUL included, given with their length; they may be null when the length is 0.
// Texts are NUL-terminated and not null.  A result of type `char *` is a new NUL-terminated string
// that the caller frees with free(), or null with errno ENOMEM.  `outLength` may be null; it receives
// the result's length without the NUL, and is left alone on failure.  Bytes are taken as they are,
// whatever the encoding: in UTF-8 only ASCII characters may be escape bytes or be searched for.  Any
// thread may call anything here.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

// ---- an escape text and two hexadecimal digits -----------------------------------------------

// Which of the 256 bytes are escaped.  A result can be undone only if the table marks the escape
// byte.
using EscapeTable = std::array<bool, 256>;

// The table that marks the bytes of `marked`.
constexpr EscapeTable Escape_Table(std::string_view marked) {
  EscapeTable table = {};
  for (const char byte : marked) table[static_cast<unsigned char>(byte)] = true;
  return table;
}

// Each marked byte becomes escapeText and the byte's value in two upper-case hexadecimal digits.
[[nodiscard]] char *Escape_DoString(const char *escapeText, const EscapeTable &bytesToEscape,
                                    const void *data, size_t length, size_t *outLength);

// The same with an escape text of one byte, which may be any byte.
[[nodiscard]] char *Escape_Do(char escapeByte, const EscapeTable &bytesToEscape, const void *data,
                              size_t length, size_t *outLength);

// Each escape byte followed by two hexadecimal digits, of either case, becomes together with them the
// byte of that value.  An escape byte without two digits stays, and so does the byte that ended the
// attempt, even if that is an escape byte: "%%41" and "%4%41" are left as they are.
[[nodiscard]] char *Escape_Undo(char escapeByte, const void *data, size_t length,
                                size_t *outLength);

// As Escape_Undo into the buffer `out` of outSize bytes, which may overlap the data.  False when
// the result and its NUL do not fit (errno ERANGE) or memory runs out (ENOMEM); then the buffer is
// untouched.
[[nodiscard]] bool Escape_UndoFixed(char escapeByte, const void *data, size_t length, char *out,
                                    size_t outSize);

// ---- line ends and the shell -----------------------------------------------------------------

// Removes the carriage return of each CR LF pair; others stay.
[[nodiscard]] char *Escape_AnsiToUnix(const void *data, size_t length, size_t *outLength);

// One word of a POSIX shell command that means exactly the data, if they have no NUL: in single
// quotes, each single quote inside written as '"'"' (XCU 2.2).
[[nodiscard]] char *Escape_Sh(const void *data, size_t length, size_t *outLength);

// ---- an escape byte that makes the next byte literal -----------------------------------------

// The first place of `ch` in `text` that no escape byte protects; null if there is none.  An escape
// byte protects the byte after it, unless it is protected itself.  When ch is the escape byte, the
// first unprotected escape byte is found; a NUL is never found.
[[nodiscard]] const char *Escape_Strchr(char escapeByte, const char *text, char ch);

// A copy without the escape bytes; a byte that was protected by one is kept, whatever it is.
[[nodiscard]] char *Escape_Unescape(char escapeByte, const char *text);

// A copy with a backslash before every comma and every backslash.  Undone by Escape_Unescape('\\',
// ...).
[[nodiscard]] char *Escape_Comma(const char *text);

// In place: \\ becomes a backslash, \n a line feed, and \ooo, three octal digits, the byte of that
// value (its low eight bits; \000 ends the text).  Any other backslash stays.
void Escape_UnescapeCString(char *text);
