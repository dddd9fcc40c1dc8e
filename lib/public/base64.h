// base64.h -- Base64 (RFC 4648, section 4: alphabet with "+" and "/", padding, no line breaks).
#pragma once

#include <cstddef>

// Writes the text of the `srcLength` bytes at `src` (may be null when there are none), and a NUL,
// into `dst`, which has room for `dstMax` bytes.  *dstLength receives the text's length without the
// NUL; dstLength may be null.  False when it does not fit: then nothing is written and *dstLength is 0.
// Any thread.
[[nodiscard]] bool Base64_Encode(const void *src, size_t srcLength, char *dst, size_t dstMax,
                                 size_t *dstLength);

// Writes the bytes that `text` (not null) encodes into `dst`, which has room for `dstMax` bytes, and
// their number into *dstLength.  False when they do not fit, or when `text` is not exactly what
// Base64_Encode makes of some bytes; then *dstLength is 0 and the content of dst is undefined.
// Any thread.
[[nodiscard]] bool Base64_Decode(const char *text, void *dst, size_t dstMax, size_t *dstLength);
