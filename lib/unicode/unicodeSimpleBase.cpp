// unicodeSimpleBase.cpp -- strings from and to other encodings, and whole strings.
// Tests: tests/unit/unicode_test.cpp

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "lib/public/codeset.h"
#include "lib/public/escape.h"
#include "lib/public/fatal.h"
#include "lib/public/heap.h"
#include "lib/public/scopeGuard.h"
#include "lib/public/str.h"
#include "lib/public/unicode.h"

namespace {

constexpr char kSource[] = "lib/unicode/unicodeSimpleBase";
constexpr char kUtf8[] = "UTF-8";

StringEncoding Resolve(StringEncoding encoding) {
  return encoding == StringEncoding::Current ? Unicode_GetCurrentEncoding() : encoding;
}

// ---- lengths ---------------------------------------------------------------------------------

// The bytes before the first unit of zero.  The buffer need not be aligned.
template <typename Unit>
size_t BytesBeforeZero(const void *buffer) {
  const auto *const bytes = static_cast<const char *>(buffer);
  for (size_t length = 0;; length += sizeof(Unit)) {
    Unit unit;
    memcpy(&unit, bytes + length, sizeof unit);
    if (unit == 0) return length;
  }
}

// The length of a text given with its length, or with -1 if it ends before its terminator.
size_t LengthInBytes(const void *buffer, ptrdiff_t length, StringEncoding encoding) {
  if (length >= 0) return static_cast<size_t>(length);
  switch (Resolve(encoding)) {
    case StringEncoding::Utf16Le:
    case StringEncoding::Utf16Be:
    case StringEncoding::Utf16:
      return BytesBeforeZero<uint16_t>(buffer);
    case StringEncoding::Utf32Le:
    case StringEncoding::Utf32Be:
    case StringEncoding::Utf32:
      return BytesBeforeZero<uint32_t>(buffer);
    default:
      return strlen(static_cast<const char *>(buffer));
  }
}

// ---- copies ----------------------------------------------------------------------------------

char *CopyBytes(std::string_view bytes, size_t *outLength) {
  const auto copy = static_cast<char *>(Heap_SafeMalloc(bytes.size() + 1));
  std::ranges::copy(bytes, copy);
  copy[bytes.size()] = '\0';
  if (outLength != nullptr) *outLength = bytes.size();
  return copy;
}

// ---- a text that cannot be converted ---------------------------------------------------------

constexpr EscapeTable MakeUnprintable() {
  EscapeTable table{};
  for (size_t byte = 0; byte < table.size(); byte++) {
    table[byte] = byte < 0x20 || byte == '\\' || byte >= 0x7F;
  }
  return table;
}

constexpr EscapeTable kUnprintable = MakeUnprintable();

// How many bytes have an escaped form of at most `room` characters.
size_t BytesThatFit(std::string_view bytes, size_t room) {
  constexpr size_t kEscape = 4;
  size_t width = 0;
  const auto isTooMuch = [&](char byte) {
    width += kUnprintable[static_cast<uint8_t>(byte)] ? kEscape : 1;
    return width > room;
  };
  return static_cast<size_t>(std::ranges::find_if(bytes, isTooMuch) - bytes.begin());
}

// The text in the form of Unicode_EscapeBuffer, cut to what the log takes beside the rest of the
// message; null when memory is exhausted.
HeapStr Shown(std::string_view bytes, StringEncoding encoding) {
  constexpr size_t kRoom = 880;
  const size_t shown = BytesThatFit(bytes, kRoom);
  HeapStr text(Unicode_EscapeBuffer(bytes.data(), static_cast<ptrdiff_t>(shown), encoding));
  if (text != nullptr && shown < bytes.size()) text.reset(Unicode_Join(text.get(), "...", nullptr));
  return text;
}

[[noreturn]] void CannotConvert(std::string_view bytes, StringEncoding encoding) {
  const HeapStr shown = Shown(bytes, encoding);
  Panic("%s: Couldn't convert invalid buffer [%s] from %s to Unicode.\n", "Unicode_AllocWithLength",
        shown == nullptr ? "(couldn't escape bytes)" : shown.get(),
        Unicode_EncodingEnumToName(encoding));
}

}  // namespace

// ---- from and to other encodings -------------------------------------------------------------

char *Unicode_AllocWithLength(const void *buffer, ptrdiff_t length, StringEncoding encoding) {
  if (buffer == nullptr) return nullptr;
  const size_t size = LengthInBytes(buffer, length, encoding);
  char *string;
  if (!CodeSet_GenericToGeneric(Unicode_EncodingEnumToName(encoding), buffer, size, kUtf8,
                                CODESET_SUBSTITUTE, &string, nullptr)) {
    if (errno == ENOMEM) Fatal_MemAlloc();
    CannotConvert({static_cast<const char *>(buffer), size}, encoding);
  }
  return string;
}

char *Unicode_Alloc(const void *buffer, StringEncoding encoding) {
  return Unicode_AllocWithLength(buffer, -1, encoding);
}

char *Unicode_GetAllocBytesWithLength(const char *string, StringEncoding encoding, ptrdiff_t length,
                                      size_t *outLength) {
  if (string == nullptr) return nullptr;
  encoding = Resolve(encoding);
  const std::string_view bytes(string, LengthInBytes(string, length, StringEncoding::Utf8));
  char *result = nullptr;
  switch (encoding) {
    case StringEncoding::Utf8:
      return CopyBytes(bytes, outLength);
    case StringEncoding::Utf16Le:
      // A string of the library is well-formed UTF-8, and all of that has a form in UTF-16.
      if (!CodeSet_Utf8ToUtf16le(bytes.data(), bytes.size(), &result, outLength)) {
        Fatal_NotImplemented(kSource, 741);
      }
      return result;
    default:
      return CodeSet_GenericToGeneric(kUtf8, bytes.data(), bytes.size(),
                                      Unicode_EncodingEnumToName(encoding), CODESET_STOP, &result,
                                      outLength)
                 ? result
                 : nullptr;
  }
}

char *Unicode_GetAllocBytes(const char *string, StringEncoding encoding) {
  return Unicode_GetAllocBytesWithLength(string, encoding, -1, nullptr);
}

char **Unicode_GetAllocList(char *const *strings, ptrdiff_t count, StringEncoding encoding) {
  size_t length = count < 0 ? 0 : static_cast<size_t>(count);
  if (count < 0) {
    while (strings[length] != nullptr) length++;
  }
  auto list = Heap_Array<char *>(length + 1);
  if (list == nullptr) Fatal_MemAlloc();
  size_t done = 0;
  ScopeGuard undo([&] {
    while (done > 0) HeapStr(list[--done]).reset();
  });
  for (; done < length; done++) {
    list[done] = Unicode_GetAllocBytes(strings[done], encoding);
    if (list[done] == nullptr && strings[done] != nullptr) return nullptr;
  }
  undo.Dismiss();
  list[length] = nullptr;
  return list.release();
}

char *Unicode_EscapeBuffer(const void *buffer, ptrdiff_t length, StringEncoding encoding) {
  return Escape_DoString("\\x", kUnprintable, buffer, LengthInBytes(buffer, length, encoding),
                         nullptr);
}

// ---- whole strings ---------------------------------------------------------------------------

char *Unicode_Duplicate(const char *string) {
  return string == nullptr ? nullptr : Heap_SafeStrdup(string).release();
}

char *Unicode_Join(const char *first, ...) {
  HeapStr joined(Unicode_Duplicate(first));
  va_list rest;
  va_start(rest, first);
  while (joined != nullptr) {
    const char *const next = va_arg(rest, const char *);
    if (next == nullptr) break;
    joined.reset(Str_SafeAsprintf(nullptr, "%s%s", joined.get(), next));
  }
  va_end(rest);
  return joined.release();
}

char *Unicode_Format(const char *format, ...) {
  va_list args;
  va_start(args, format);
  char *const string = Str_Vasprintf(nullptr, format, args);
  va_end(args);
  return string;
}
