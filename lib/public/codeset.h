// codeset.h -- encodings of text: UTF-8 inside, other encodings at the edges.
//
// The current encoding, the one of paths and arguments, is always UTF-8.  Any thread may call anything
// here.
#pragma once

#include <cstddef>
#include <cstdint>

// Decodes the character at `p`, which ends before `end`.  Returns its length, 1 to 4, and stores its
// code point; or 0 when the bytes are no shortest-form UTF-8 sequence.  Surrogates and values above
// U+10FFFF are decoded like others: who validates must reject them.
[[nodiscard]] size_t CodeSet_GetUtf8(const char *p, const char *end, uint32_t *codePoint);

// Whether the bytes are well-formed UTF-8 (Unicode, table 3-7).  The text is not null.
[[nodiscard]] bool CodeSet_IsValidUTF8(const char *string);
[[nodiscard]] bool CodeSet_IsValidUTF8(const char *bytes, size_t length);

// From UTF-8 to the current encoding and back.  `bytes` may be null when length is 0.  On success
// `*out` is a new block that the caller frees, followed by four zero bytes, and *outLength, when given,
// its length without these.  False when the bytes are not valid; then nothing is stored.
[[nodiscard]] bool CodeSet_Utf8ToCurrent(const char *bytes, size_t length, char **out,
                                         size_t *outLength);
[[nodiscard]] bool CodeSet_CurrentToUtf8(const char *bytes, size_t length, char **out,
                                         size_t *outLength);
