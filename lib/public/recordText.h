// recordText.h -- a text that is sure to fit a record of the log.
//
// The log drops the body of a record that is too long (log.h).  A text with a part of any length, such
// as a name or a format, is better cut than lost: it goes through here and then to the log by "%s".
// Any thread.  Nothing is allocated, but by conversions of floating-point numbers and wide strings.
#pragma once

#include <cstdarg>

#include "lib/public/str.h"

struct RecordText {
  char text[1024];
};

// As Str_Vsnprintf and Str_Snprintf; a text that does not fit ends in "...\n", behind a whole
// character.
[[nodiscard]] inline __attribute__((format(printf, 1, 0))) RecordText RecordText_VFormat(
    const char *format, va_list args) {
  constexpr char kCut[] = "...\n";
  RecordText record;
  va_list again;
  va_copy(again, args);
  if (Str_Vsnprintf(record.text, sizeof record.text, format, args) < 0) {
    Str_Vsnprintf(record.text, sizeof record.text - (sizeof kCut - 1), format, again);
    Str_Strcat(record.text, kCut, sizeof record.text);
  }
  va_end(again);
  return record;
}

[[nodiscard]] inline __attribute__((format(printf, 1, 2))) RecordText RecordText_Format(
    const char *format, ...) {
  va_list args;
  va_start(args, format);
  const RecordText record = RecordText_VFormat(format, args);
  va_end(args);
  return record;
}
