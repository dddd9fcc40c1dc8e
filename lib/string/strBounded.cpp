// strBounded.cpp -- copying, joining and searching strings of bounded length.
//
// Tests: tests/unit/format_test.cpp

#include <algorithm>
#include <cstring>

#include "lib/public/str.h"
#include "lib/string/strInternal.h"

char *Str_Strcpy(char *dest, const char *src, size_t size) {
  const size_t length = strlen(src);
  if (length >= size) Fatal_BufferTooSmall(kStrSource, 284);
  return static_cast<char *>(memcpy(dest, src, length + 1));
}

char *Str_Strncpy(char *dest, size_t size, const char *src, size_t n) {
  const size_t length = Str_Strlen(src, n);
  if (length >= size) Fatal_BufferTooSmall(kStrSource, 322);
  memcpy(dest, src, length);
  dest[length] = '\0';
  return dest;
}

size_t Str_Strlen(const char *s, size_t n) {
  return strnlen(s, n);
}

char *Str_Strnstr(const char *s, const char *needle, size_t n) {
  const size_t length = strlen(needle);
  const char *const end = s + Str_Strlen(s, n);
  const char *const found = std::search(s, end, needle, needle + length);
  if (found == end && length != 0) return nullptr;
  return const_cast<char *>(found);
}

char *Str_Strcat(char *dest, const char *src, size_t size) {
  const size_t before = strlen(dest);
  const size_t length = strlen(src);
  if (before >= size || length >= size - before) Fatal_BufferTooSmall(kStrSource, 444);
  memcpy(dest + before, src, length + 1);
  return dest;
}

char *Str_Strncat(char *dest, size_t size, const char *src, size_t n) {
  const size_t before = Str_Strlen(dest, size);
  const size_t room = size - before;
  const size_t length = Str_Strlen(src, n);
  if (length >= room) Fatal_BufferTooSmall(kStrSource, 498);
  memcpy(dest + before, src, length);
  dest[before + length] = '\0';
  return dest;
}

char *Str_ToLower(char *s) {
  for (char *p = s; *p != '\0'; ++p) {
    if (*p >= 'A' && *p <= 'Z') *p = static_cast<char>(*p + ('a' - 'A'));
  }
  return s;
}

char *Str_ToUpper(char *s) {
  for (char *p = s; *p != '\0'; ++p) {
    if (*p >= 'a' && *p <= 'z') *p = static_cast<char>(*p - ('a' - 'A'));
  }
  return s;
}
