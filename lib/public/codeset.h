// codeset.h -- conversion between encodings: UTF-8 inside, other encodings at the edges.
//
// Two engines convert.  The library's own engine is in use from the start and converts these pairs:
//   UTF-8, UTF-16LE, UTF-16BE or US-ASCII to itself; UTF-8 to UTF-16LE
//       invalid text is refused whatever the flags, never repaired
//   UTF-16LE, UTF-16BE or ISO-8859-1 to UTF-8
//       likewise; any ISO-8859-1 is valid
//   US-ASCII to UTF-8, and back
//       follows the flags
// Once CodeSet_Init has found ICU's data, ICU takes over everything declared under "conversion" and
// "validity by name".  It converts all usable encodings and follows the flags for every pair.  A
// program that does not call CodeSet_Init does not contain ICU, unless the host normalises with it.
//
// Names of encodings are not null.  The library's engine takes those of encoding.h.  ICU takes its
// own, which do not include all of these: Unicode_EncodingEnumToName gives a name that both take.
// Unless stated otherwise, bytes may be null when their length is 0, texts may contain NUL, and a
// result of false leaves errno EILSEQ for a text that is invalid or cannot be expressed, EINVAL for a
// pair of encodings that the engine does not convert, or ENOMEM; nothing is stored then.  Any thread
// may call anything here.
#pragma once

#include <cstddef>
#include <cstdint>

struct DynBuf;

// ---- ICU -------------------------------------------------------------------------------------

// Lets ICU take over if its data file, icudt44l.dat, is in `icuDataDir`.  Null means the product's
// folder "icuDir" (productDir.h) or, in a program without such a look-up, the icu folder of the
// machine-wide installation.  Always true: without the file the library's engine stays in use.
//
// Unicode_Init calls this once for all threads.  A direct call must come before other threads
// convert.  Link lumen_icu.
[[nodiscard]] bool CodeSet_Init(const char *icuDataDir);

// ---- conversion ------------------------------------------------------------------------------

// The values of `flags`: what becomes of parts that are invalid or cannot be expressed.  Any other
// value is fatal once ICU has taken over; before, only the bit of CODESET_SUBSTITUTE counts.  Characters
// that are ignorable by default, such as the soft hyphen (Unicode, Default_Ignorable_Code_Point), are left
// out by ICU whatever the flags, where the target cannot express them.
enum : int {
  CODESET_STOP = 0,        // the conversion fails
  CODESET_SUBSTITUTE = 1,  // they become U+FFFD, or SUB (1A) in US-ASCII
  CODESET_SKIP = 2,        // they are left out
};

// Appends the converted text to `out` (not null, initialised), which must not contain the text
// itself.  On failure `out` keeps its content.  An empty text succeeds whatever the names.
[[nodiscard]] bool CodeSet_GenericToGenericDb(const char *fromName, const void *bytes,
                                              size_t length, const char *toName, int flags,
                                              DynBuf *out);

// *out becomes a new block with the converted text, which the caller frees with free().  Four zero
// bytes follow the text, a terminator in any encoding.  *outLength (bytes; may be null) does not
// count them.
[[nodiscard]] bool CodeSet_GenericToGeneric(const char *fromName, const void *bytes, size_t length,
                                            const char *toName, int flags, char **out,
                                            size_t *outLength);

// The same for fixed pairs, with CODESET_STOP.  The current encoding, which paths and arguments are
// in, is UTF-8: from one to the other a text is checked and copied.
[[nodiscard]] bool CodeSet_Utf8ToCurrent(const char *bytes, size_t length, char **out,
                                         size_t *outLength);
[[nodiscard]] bool CodeSet_CurrentToUtf8(const char *bytes, size_t length, char **out,
                                         size_t *outLength);
[[nodiscard]] bool CodeSet_Utf16leToUtf8(const char *bytes, size_t length, char **out,
                                         size_t *outLength);
[[nodiscard]] bool CodeSet_Utf8ToUtf16le(const char *bytes, size_t length, char **out,
                                         size_t *outLength);
[[nodiscard]] bool CodeSet_Utf16beToUtf8(const char *bytes, size_t length, char **out,
                                         size_t *outLength);
[[nodiscard]] bool CodeSet_Utf16leToCurrent(const char *bytes, size_t length, char **out,
                                            size_t *outLength);
[[nodiscard]] bool CodeSet_CurrentToUtf16le(const char *bytes, size_t length, char **out,
                                            size_t *outLength);

// "UTF-8", a constant.
[[nodiscard]] const char *CodeSet_GetCurrentCodeSet();

// ---- validity by name ------------------------------------------------------------------------

// Whether the text can be converted from the encoding; false for an encoding that the library's
// engine does not convert from.  Takes no memory before ICU has taken over; errno means nothing.
// Lengths of 2^31 bytes and more are fatal, and so are, once ICU has taken over, names that ICU does
// not know.  An empty text is valid.  A text of nothing but a byte-order mark or shift sequences is
// invalid for ICU.
[[nodiscard]] bool CodeSet_Validate(const char *bytes, size_t length, const char *name);

// ---- UTF-8 -----------------------------------------------------------------------------------

// Decodes the character at `p`, which ends before `end`.  Returns its length, 1 to 4, and stores
// its code point; returns 0 when the bytes are no UTF-8 sequence in shortest form.  Surrogates and
// values above U+10FFFF are decoded like others; a caller that validates must reject them.
[[nodiscard]] size_t CodeSet_GetUtf8(const char *p, const char *end, uint32_t *codePoint);

// Whether the bytes are well-formed UTF-8 (Unicode, table 3-7).  The text is not null.
[[nodiscard]] bool CodeSet_IsValidUTF8(const char *string);
[[nodiscard]] bool CodeSet_IsValidUTF8(const char *bytes, size_t length);

// Converts a NUL-terminated text into a new one, which the caller frees with free().  Null gives null
// and true.  Surrogates and values above U+10FFFF are invalid on both sides.
[[nodiscard]] bool CodeSet_UTF8ToUTF32(const char *utf8, char32_t **utf32);
[[nodiscard]] bool CodeSet_UTF32ToUTF8(const char32_t *utf32, char **utf8);

// ---- normalisation ---------------------------------------------------------------------------

// Appends the string (UTF-8, not null) to `out` (not null, initialised) in normalisation form C if
// `precomposed`, else D (Unicode Standard Annex 15), without a NUL.  The host normalises, by its own
// version of Unicode.  On failure errno means nothing.  Link lumen_normalize.
[[nodiscard]] bool CodeSet_Utf8Normalize(const char *string, bool precomposed, DynBuf *out);
