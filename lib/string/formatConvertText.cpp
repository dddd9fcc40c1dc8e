// formatConvertText.cpp -- s S c C and literal characters.
//
// Tests: tests/unit/format_test.cpp

#include <algorithm>
#include <climits>
#include <cwchar>

#include "lib/public/fatal.h"
#include "lib/public/str.h"
#include "lib/public/utf8.h"
#include "lib/string/formatConvert.h"
#include "lib/string/formatField.h"

namespace {

constexpr char kNull[] = "(null)";

void PrintText(FormatSink &sink, const FormatConversion &field, const char *text, size_t length) {
  if (static_cast<size_t>(field.width.number) <= length) return sink.Write(text, length);
  const FormatPadding padding = FormatPaddingOf(field, length, true);
  sink.MakeRoom(padding.Total() + length);
  sink.Fill(' ', padding.blanksBefore);
  sink.Fill('0', padding.zeros);
  sink.Write(text, length);
  sink.Fill(' ', padding.blanksBehind);
}

// A string that ends at its NUL or at the precision, whichever is first.
void PrintString(FormatSink &sink, const FormatConversion &field, const char *string) {
  // Without a limit strlen is faster.
  PrintText(sink, field, string,
            field.HasPrecision() ? Str_Strlen(string, FormatLimitOf(field)) : strlen(string));
}

// Every unit makes at least one byte, so no more than `limit` units are looked at.
size_t CountUnits(const wchar_t *string, size_t limit) {
  size_t n = 0;
  while (n < limit && string[n] != L'\0') ++n;
  return n;
}

// The block holds the longest form of every unit, unless the precision is smaller: then a full
// block is where the text ends.
void PrintWideString(FormatSink &sink, const FormatConversion &field, const wchar_t *string) {
  const size_t limit = FormatLimitOf(field);
  const size_t units = CountUnits(string, limit);
  const size_t size = std::min(4 * units, limit);
  const HeapArray<char> block = Heap_Array<char>(size);
  if (!block) return sink.Fail();
  const wchar_t *source = string;
  char *target = block.get();
  const Utf8Result result =
      Utf8_FromUtf32(&source, string + units, &target, block.get() + size, Utf8Mode::Lenient);
  const bool endsAtPrecision = result == Utf8Result::TargetExhausted && field.HasPrecision();
  if (result != Utf8Result::Ok && !endsAtPrecision) {
    Fatal_NotImplemented("lib/string/bsd_vsnprintf", 414);
  }
  PrintText(sink, field, block.get(), static_cast<size_t>(target - block.get()));
}

}  // namespace

void FormatConvertString(FormatSink &sink, const FormatConversion &field, const void *string) {
  if (string == nullptr) {
    PrintString(sink, field, kNull);
  } else if (FormatSize_IsWide(field.size)) {
    PrintWideString(sink, field, static_cast<const wchar_t *>(string));
  } else {
    PrintString(sink, field, static_cast<const char *>(string));
  }
}

void FormatConvertChar(FormatSink &sink, const FormatConversion &field, int value) {
  if (field.kind != FormatKind::Char || !FormatSize_IsWide(field.size)) {
    const char c = static_cast<char>(value);
    return PrintText(sink, field, &c, 1);
  }
  char bytes[MB_LEN_MAX];
  mbstate_t state{};
  const size_t length = wcrtomb(bytes, static_cast<wchar_t>(value), &state);
  if (length == static_cast<size_t>(-1)) return sink.Fail();
  PrintText(sink, field, bytes, length);
}
