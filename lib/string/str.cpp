// str.cpp -- formatting into bounded buffers and new strings.
//
// Tests: tests/unit/format_test.cpp

#include "lib/public/str.h"

#include "lib/public/bsd_vsnprintf.h"
#include "lib/public/utf8.h"
#include "lib/string/strInternal.h"

namespace {

// Ends the text of a full buffer, `kept` bytes, behind its last whole UTF-8 character.
void TrimPartialCharacter(char *buffer, size_t kept) {
  const Utf8Tail tail = Utf8_Tail(buffer, kept);
  if (tail.missing != 0) buffer[tail.start] = '\0';
}

// The fixed-buffer procedures' result from the engine's count.  A text that did not fit fills the
// buffer.  After a failure the text ends with a whole piece, unless the buffer was full before.
int Bounded(char *buffer, size_t size, int count) {
  if (count >= 0 && static_cast<size_t>(count) < size) return count;
  if (size > 0) {
    const size_t kept = count >= 0 ? size - 1 : Str_Strlen(buffer, size - 1);
    if (kept == size - 1) TrimPartialCharacter(buffer, kept);
  }
  return -1;
}

// A buffer of size 0 may be null, which to the engine would mean a new buffer.
char *OutputFor(char *buffer, size_t size) {
  static char nowhere;
  return size == 0 ? &nowhere : buffer;
}

}  // namespace

int Str_Vsnprintf(char *buffer, size_t size, const char *format, va_list args) {
  char *output = OutputFor(buffer, size);
  return Bounded(buffer, size, bsd_vsnprintf(&output, size, format, args));
}

int Str_Snprintf(char *buffer, size_t size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int count = Str_Vsnprintf(buffer, size, format, args);
  va_end(args);
  return count;
}

int Str_Sprintf(char *buffer, size_t size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int count = Str_Vsnprintf(buffer, size, format, args);
  va_end(args);
  if (count < 0) Fatal_BufferTooSmall(kStrSource, 214);
  return count;
}

int Str_SprintfPosixLocale(char *buffer, size_t size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  char *output = OutputFor(buffer, size);
  const int count = Bounded(buffer, size, bsd_vsnprintf_posix_locale(&output, size, format, args));
  va_end(args);
  if (count < 0) Fatal_BufferTooSmall(kStrSource, 177);
  return count;
}

char *Str_Vasprintf(size_t *length, const char *format, va_list args) {
  char *string = nullptr;
  const int count = bsd_vsnprintf(&string, 0, format, args);
  if (count < 0) return nullptr;
  if (length != nullptr) *length = static_cast<size_t>(count);
  return string;
}

char *Str_Asprintf(size_t *length, const char *format, ...) {
  va_list args;
  va_start(args, format);
  char *const string = Str_Vasprintf(length, format, args);
  va_end(args);
  return string;
}

char *Str_SafeVasprintf(size_t *length, const char *format, va_list args) {
  char *const string = Str_Vasprintf(length, format, args);
  if (string == nullptr) Fatal_Verify(kStrSource, 657);
  return string;
}

char *Str_SafeAsprintf(size_t *length, const char *format, ...) {
  va_list args;
  va_start(args, format);
  char *const string = Str_SafeVasprintf(length, format, args);
  va_end(args);
  return string;
}
