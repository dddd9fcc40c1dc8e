// codesetOwn.cpp -- the library's own engine, for a handful of encodings.
//
// A converter reserves the largest room that its output can take, writes without checking the room
// again, and sets the buffer's size at the end.  Text that is not valid goes no further: UTF-8 is
// checked before it is converted, UTF-16 meanwhile.
// Tests: tests/unit/codeset_test.cpp, fuzz/codeset_fuzz.cpp
// Speed: bench/codeset_bench.cpp

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "lib/misc/codeset/codesetEngine.h"
#include "lib/misc/codeset/codesetUtf16.h"
#include "lib/misc/codeset/codesetUtf8.h"
#include "lib/public/codeset.h"
#include "lib/public/dynbuf.h"
#include "lib/public/encoding.h"
#include "lib/public/utf8.h"

namespace {

// ---- the buffer ------------------------------------------------------------------------------

// Room for `count` pieces of `size` bytes at the end of `out`; null when there is no memory.
char *Reserve(DynBuf *out, size_t count, size_t size = 1) {
  // Most callers append a terminator, which should not take another allocation.
  constexpr size_t kTerminator = 4;
  size_t whole;
  if (__builtin_mul_overflow(count, size, &whole)) return nullptr;
  if (__builtin_add_overflow(whole, out->size, &whole)) return nullptr;
  if (__builtin_add_overflow(whole, kTerminator, &whole)) return nullptr;
  if (whole > out->allocated && !DynBuf_Enlarge(out, whole)) return nullptr;
  return out->data + out->size;
}

// Ends the content at `end`, within what was reserved; null stands for a text that is not valid.
int Finish(DynBuf *out, const char *end) {
  if (end == nullptr) return EILSEQ;
  out->size = static_cast<size_t>(end - out->data);
  return 0;
}

// ---- validity --------------------------------------------------------------------------------

bool IsValidUtf8(std::string_view text) {
  return CodeSet_IsValidUTF8(text.data(), text.size());
}

template <std::endian order>
bool IsValidUtf16(std::string_view text) {
  if (text.size() % sizeof(char16_t) != 0) return false;
  const char *p = text.data();
  const char *const end = p + text.size();
  for (uint32_t c; p < end;) {
    if (!CodeSetTakeUtf16<order>(&p, end, &c)) return false;
  }
  return true;
}

bool IsAscii(std::string_view text) {
  const char *const end = text.data() + text.size();
  return CodeSetSkipAscii(text.data(), end) == end;
}

bool IsAnything(std::string_view) {
  return true;
}

// ---- converters ------------------------------------------------------------------------------
//
// Each returns 0 or the errno of codesetEngine.h.

// From an encoding to itself.  Invalid text is refused, not repaired.
template <bool (*isValid)(std::string_view)>
int CopyIf(std::string_view text, int, DynBuf *out) {
  if (!isValid(text)) return EILSEQ;
  char *const to = Reserve(out, text.size());
  if (to == nullptr) return ENOMEM;
  memcpy(to, text.data(), text.size());
  return Finish(out, to + text.size());
}

int Utf8ToUtf16le(std::string_view text, int, DynBuf *out) {
  if (!IsValidUtf8(text)) return EILSEQ;
  char *const to = Reserve(out, text.size(), kCodeSetUtf16PerByte);
  return to == nullptr ? ENOMEM : Finish(out, CodeSetUtf8ToUtf16le(text, to));
}

template <std::endian order>
int Utf16ToUtf8(std::string_view text, int, DynBuf *out) {
  char *const to = Reserve(out, text.size() / sizeof(char16_t), kCodeSetUtf8PerUnit);
  return to == nullptr ? ENOMEM : Finish(out, CodeSetUtf16ToUtf8<order>(text, to));
}

// Copies runs of ASCII.  Any other character, of measure(p, end) bytes, fails the conversion, becomes
// the substitute, or is left out.
template <size_t (*measure)(const char *p, const char *end)>
int CopyAscii(std::string_view text, std::string_view substitute, int flags, DynBuf *out) {
  char *to = Reserve(out, text.size(), substitute.size());
  if (to == nullptr) return ENOMEM;
  const char *const end = text.data() + text.size();
  for (const char *p = text.data();;) {
    const char *const runEnd = CodeSetSkipAscii(p, end);
    to = std::copy(p, runEnd, to);
    if (runEnd == end) return Finish(out, to);
    if (flags == CODESET_STOP) return EILSEQ;
    if ((flags & CODESET_SUBSTITUTE) != 0) to = std::ranges::copy(substitute, to).out;
    p = runEnd + measure(runEnd, end);
  }
}

size_t OneByte(const char *, const char *) {
  return 1;
}

// The length of a character, or 1 for a byte that is part of none.
size_t Utf8Length(const char *p, const char *end) {
  uint32_t codePoint;
  return std::max<size_t>(1, CodeSetDecode(p, end, &codePoint));
}

int AsciiToUtf8(std::string_view text, int flags, DynBuf *out) {
  return CopyAscii<OneByte>(text, "\xEF\xBF\xBD", flags, out);  // U+FFFD
}

int Utf8ToAscii(std::string_view text, int flags, DynBuf *out) {
  return CopyAscii<Utf8Length>(text, "\x1A", flags, out);  // SUB
}

int Latin1ToUtf8(std::string_view text, int, DynBuf *out) {
  constexpr size_t kMostPerByte = 2;
  char *to = Reserve(out, text.size(), kMostPerByte);
  if (to == nullptr) return ENOMEM;
  const char *const end = text.data() + text.size();
  for (const char *p = text.data(); p < end; p++) {
    const char *const runEnd = CodeSetSkipAscii(p, end);
    to = std::copy(p, runEnd, to);
    p = runEnd;
    // The 256 characters of ISO 8859-1 are the first ones of Unicode.
    if (p < end) to = Utf8_Encode(static_cast<uint8_t>(*p), to);
  }
  return Finish(out, to);
}

// ---- the engine ------------------------------------------------------------------------------

// The current encoding is UTF-8 and needs no rows of its own.
using enum StringEncoding;
constexpr auto kLittle = std::endian::little;
constexpr auto kBig = std::endian::big;

struct Validator {
  const char *name;
  StringEncoding encoding;
  bool (*isValid)(std::string_view text);
};

// All encodings that a converter reads.
constexpr Validator kValidators[] = {
    {"UTF-8", Utf8, IsValidUtf8},
    {"UTF-16LE", Utf16Le, IsValidUtf16<kLittle>},
    {"UTF-16BE", Utf16Be, IsValidUtf16<kBig>},
    {"ASCII", UsAscii, IsAscii},
    {"ISO-8859-1", Iso8859_1, IsAnything},
};

struct Converter {
  StringEncoding from, to;
  int (*convert)(std::string_view text, int flags, DynBuf *out);
};

constexpr Converter kConverters[] = {
    {Utf8, Utf8, CopyIf<IsValidUtf8>},
    {Utf16Le, Utf16Le, CopyIf<IsValidUtf16<kLittle>>},
    {Utf16Be, Utf16Be, CopyIf<IsValidUtf16<kBig>>},
    {UsAscii, UsAscii, CopyIf<IsAscii>},
    {Utf8, Utf16Le, Utf8ToUtf16le},
    {Utf8, UsAscii, Utf8ToAscii},
    {Utf16Le, Utf8, Utf16ToUtf8<kLittle>},
    {Utf16Be, Utf8, Utf16ToUtf8<kBig>},
    {UsAscii, Utf8, AsciiToUtf8},
    {Iso8859_1, Utf8, Latin1ToUtf8},
};

// Compares with the usual names first, because a look-up takes longer than converting a short path.
StringEncoding EncodingOf(std::string_view name) {
  for (const Validator &row : kValidators) {
    if (row.name == name) return row.encoding;
  }
  return Unicode_EncodingNameToEnum(name.data());
}

int ConvertByName(const char *fromName, const char *bytes, size_t length, const char *toName,
                  int flags, DynBuf *out) {
  const StringEncoding from = EncodingOf(fromName);
  const StringEncoding to = EncodingOf(toName);
  for (const Converter &row : kConverters) {
    if (row.from == from && row.to == to) return row.convert({bytes, length}, flags, out);
  }
  return EINVAL;
}

bool IsValidByName(const char *bytes, size_t length, const char *name) {
  const StringEncoding encoding = EncodingOf(name);
  for (const Validator &row : kValidators) {
    if (row.encoding == encoding) return row.isValid({bytes, length});
  }
  return false;
}

}  // namespace

constinit const CodeSetEngine kCodeSetOwnEngine = {ConvertByName, IsValidByName};
