// codeset.h -- conversion between encodings: UTF-8 inside, other encodings at the edges.
//
// Two engines convert.  The library's own is there from the start and knows these pairs:
//   UTF-8, UTF-16LE, UTF-16BE or US-ASCII to itself; UTF-8 to UTF-16LE
//       whatever the flags, an invalid text is refused, not repaired
//   UTF-16LE, UTF-16BE or ISO-8859-1 to UTF-8
//       likewise; any ISO-8859-1 is valid
//   US-ASCII to UTF-8, and back
//       the flags are heeded
// ICU, once CodeSet_Init has found its data, takes over everything declared under "conversion" and
// "validity by name".  It knows all usable encodings and heeds the flags for each pair.  A program
// that does not call CodeSet_Init does not contain ICU, unless the host normalises with it.
//
// Names of encodings are not null.  The own engine takes those of encoding.h.  ICU takes its own,
// which are not all of these: Unicode_EncodingEnumToName gives a name that both take.
// Bytes may be null when their length is 0, and texts may contain NUL, unless told otherwise.  A
// result of false means that the text is invalid, the pair unknown or memory exhausted; then
// nothing is stored.  Any thread may call anything here.
#pragma once

#include <cstddef>
#include <cstdint>

struct DynBuf;

// ---- ICU -------------------------------------------------------------------------------------

// Lets ICU take over if its data file, icudt44l.dat, is in `icuDataDir`.  Null means the product's
// folder "icuDir" (productDir.h); where the program has no such look-up, the icu folder of the
// machine-wide installation.  Always true: without the file the own engine stays.
//
// Unicode_Init calls this once for all threads; called directly, it comes before other threads
// convert.  Link lumen_icu.
[[nodiscard]] bool CodeSet_Init(const char *icuDataDir);

// ---- conversion ------------------------------------------------------------------------------

// What becomes of what is invalid or cannot be expressed: the value of `flags`.  Any other value is
// fatal once ICU has taken over.
enum : int {
  CODESET_STOP = 0,        // the conversion fails
  CODESET_SUBSTITUTE = 1,  // a substitute stands for it: U+FFFD, or SUB (1A) in US-ASCII
  CODESET_SKIP = 2,        // it is left out
};

// Appends the text, converted, to `out` (not null, initialised), in which the text must not lie; on
// failure `out` keeps its content.  An empty text succeeds whatever the names.
[[nodiscard]] bool CodeSet_GenericToGenericDb(const char *fromName, const void *bytes,
                                              size_t length, const char *toName, int flags,
                                              DynBuf *out);

// *out becomes a new block with the converted text, which the caller frees with free(); four zero
// bytes, a terminator in any encoding, follow it and are not counted in *outLength, which may be
// null.
[[nodiscard]] bool CodeSet_GenericToGeneric(const char *fromName, const void *bytes, size_t length,
                                            const char *toName, int flags, char **out,
                                            size_t *outLength);

// The same for fixed pairs, with CODESET_STOP.  The current encoding, that of paths and arguments,
// is UTF-8, so between the two a text is checked and copied.
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

// Whether the text can be converted from the encoding.  2^31 bytes and more are fatal, and so is,
// once ICU has taken over, a name that ICU does not know.  An empty text is valid.  To ICU a text
// of nothing but a byte-order mark or shift sequences is not.
[[nodiscard]] bool CodeSet_Validate(const char *bytes, size_t length, const char *name);

// ---- UTF-8 -----------------------------------------------------------------------------------

// Decodes the character at `p`, which ends before `end`.  Returns its length, 1 to 4, and stores
// its code point; or 0 when the bytes are no shortest-form UTF-8 sequence.  Surrogates and values
// above U+10FFFF are decoded like others: who validates must reject them.
[[nodiscard]] size_t CodeSet_GetUtf8(const char *p, const char *end, uint32_t *codePoint);

// Whether the bytes are well-formed UTF-8 (Unicode, table 3-7).  The text is not null.
[[nodiscard]] bool CodeSet_IsValidUTF8(const char *string);
[[nodiscard]] bool CodeSet_IsValidUTF8(const char *bytes, size_t length);

// A whole NUL-terminated text, as another one in a new block that the caller frees with free().
// Null gives null and true.  False for what is not well-formed: surrogates and values above
// U+10FFFF count as that on both sides.
[[nodiscard]] bool CodeSet_UTF8ToUTF32(const char *utf8, char32_t **utf32);
[[nodiscard]] bool CodeSet_UTF32ToUTF8(const char32_t *utf32, char **utf8);

// ---- normalisation ---------------------------------------------------------------------------

// Appends the string (UTF-8, not null) to `out` (not null, initialised) in normalisation form C if
// `precomposed`, else D (Unicode Standard Annex 15), without a NUL.  The host does it: which
// version of Unicode counts is the host's.  Link lumen_normalize.
[[nodiscard]] bool CodeSet_Utf8Normalize(const char *string, bool precomposed, DynBuf *out);
