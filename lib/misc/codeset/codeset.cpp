// codeset.cpp -- conversion between encodings, by whichever engine is installed.
// Tests: tests/unit/codeset_test.cpp

#include "lib/public/codeset.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "lib/misc/codeset/codesetEngine.h"
#include "lib/public/dynbuf.h"
#include "lib/public/encoding.h"
#include "lib/public/fatal.h"
#include "lib/public/heap.h"
#include "lib/public/utf8.h"

namespace {

// Ends a text in every encoding; the largest units have four bytes.
constexpr char kTerminator[4] = {};

constexpr char kUtf8[] = "UTF-8";
constexpr char kUtf16Le[] = "UTF-16LE";
constexpr char kUtf16Be[] = "UTF-16BE";

struct {
  std::atomic<const CodeSetEngine *> engine = &kCodeSetOwnEngine;
} state;

const CodeSetEngine &Engine() {
  return *state.engine.load(std::memory_order_acquire);
}

}  // namespace

void CodeSetInstallEngine(const CodeSetEngine *engine) {
  state.engine.store(engine, std::memory_order_release);
}

const char *CodeSet_GetCurrentCodeSet() {
  return kCurrentCodeSet;
}

// ---- conversion ------------------------------------------------------------------------------

bool CodeSet_GenericToGenericDb(const char *fromName, const void *bytes, size_t length,
                                const char *toName, int flags, DynBuf *out) {
  if (bytes == nullptr || length == 0) return true;
  const size_t before = out->size;
  const int error =
      Engine().convert(fromName, static_cast<const char *>(bytes), length, toName, flags, out);
  if (error == 0) return true;
  out->size = before;
  errno = error;
  return false;
}

bool CodeSet_GenericToGeneric(const char *fromName, const void *bytes, size_t length,
                              const char *toName, int flags, char **out, size_t *outLength) {
  ScopedDynBuf text;
  if (!CodeSet_GenericToGenericDb(fromName, bytes, length, toName, flags, &text) ||
      !DynBuf_Append(&text, kTerminator, sizeof kTerminator)) {
    return false;
  }
  // Where this fails, the text is in a larger block than it needs.
  (void)DynBuf_Trim(&text);
  *out = DynBuf_Detach(&text);
  if (outLength != nullptr) *outLength = text.size - sizeof kTerminator;
  return true;
}

bool CodeSet_Utf8ToCurrent(const char *bytes, size_t length, char **out, size_t *outLength) {
  return CodeSet_GenericToGeneric(kUtf8, bytes, length, kCurrentCodeSet, CODESET_STOP, out,
                                  outLength);
}

bool CodeSet_CurrentToUtf8(const char *bytes, size_t length, char **out, size_t *outLength) {
  return CodeSet_GenericToGeneric(kCurrentCodeSet, bytes, length, kUtf8, CODESET_STOP, out,
                                  outLength);
}

bool CodeSet_Utf16leToUtf8(const char *bytes, size_t length, char **out, size_t *outLength) {
  return CodeSet_GenericToGeneric(kUtf16Le, bytes, length, kUtf8, CODESET_STOP, out, outLength);
}

bool CodeSet_Utf8ToUtf16le(const char *bytes, size_t length, char **out, size_t *outLength) {
  return CodeSet_GenericToGeneric(kUtf8, bytes, length, kUtf16Le, CODESET_STOP, out, outLength);
}

bool CodeSet_Utf16beToUtf8(const char *bytes, size_t length, char **out, size_t *outLength) {
  return CodeSet_GenericToGeneric(kUtf16Be, bytes, length, kUtf8, CODESET_STOP, out, outLength);
}

bool CodeSet_Utf16leToCurrent(const char *bytes, size_t length, char **out, size_t *outLength) {
  return CodeSet_GenericToGeneric(kUtf16Le, bytes, length, kCurrentCodeSet, CODESET_STOP, out,
                                  outLength);
}

bool CodeSet_CurrentToUtf16le(const char *bytes, size_t length, char **out, size_t *outLength) {
  return CodeSet_GenericToGeneric(kCurrentCodeSet, bytes, length, kUtf16Le, CODESET_STOP, out,
                                  outLength);
}

// ---- validity by name ------------------------------------------------------------------------

bool CodeSet_Validate(const char *bytes, size_t length, const char *name) {
  // ICU counts with 32-bit signed integers.
  if (length > INT32_MAX) Fatal_Verify(kCodeSetSource, 1700);
  return length == 0 || Engine().isValid(bytes, length, name);
}

// ---- UTF-32 ----------------------------------------------------------------------------------

bool CodeSet_UTF8ToUTF32(const char *utf8, char32_t **utf32) {
  if (utf8 == nullptr) {
    *utf32 = nullptr;
    return true;
  }
  const size_t length = strlen(utf8);
  if (!CodeSet_IsValidUTF8(utf8, length)) {
    errno = EILSEQ;
    return false;
  }
  // No text has more characters than bytes.
  auto units = Heap_Array<char32_t>(length + 1);
  if (units == nullptr) return false;
  size_t count = 0;
  const char *const end = utf8 + length;
  for (const char *p = utf8; p < end; count++) {
    uint32_t codePoint;
    p += CodeSet_GetUtf8(p, end, &codePoint);
    units[count] = codePoint;
  }
  units[count] = 0;
  *utf32 = units.release();
  return true;
}

bool CodeSet_UTF32ToUTF8(const char32_t *utf32, char **utf8) {
  if (utf32 == nullptr) {
    *utf8 = nullptr;
    return true;
  }
  constexpr size_t kMaxBytes = 4;  // of one character
  const char32_t *end = utf32;
  while (*end != 0) end++;
  const size_t room = static_cast<size_t>(end - utf32) * kMaxBytes;
  auto bytes = Heap_Array<char>(room + 1);
  if (bytes == nullptr) return false;
  char *to = bytes.get();
  if (Utf8_FromUtf32(&utf32, end, &to, to + room, Utf8Mode::Strict) != Utf8Result::Ok) {
    errno = EILSEQ;
    return false;
  }
  *to = '\0';
  *utf8 = bytes.release();
  return true;
}
