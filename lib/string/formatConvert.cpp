// formatConvert.cpp -- stage 3 of formatting: which conversion a value goes through.
//
// Tests: tests/unit/format_test.cpp

#include "lib/string/formatConvert.h"

namespace {

// %n: to an object of the type that the size modifier says.
void StoreCount(const FormatConversion &field, size_t count, void *to) {
  switch (field.size) {
    case FormatSize::Char:
      *static_cast<signed char *>(to) = static_cast<signed char>(count);
      break;
    case FormatSize::Short:
      *static_cast<short *>(to) = static_cast<short>(count);
      break;
    case FormatSize::None:
    case FormatSize::Int:
      *static_cast<int *>(to) = static_cast<int>(count);
      break;
    default:
      *static_cast<int64_t *>(to) = static_cast<int64_t>(count);
      break;
  }
}

}  // namespace

void FormatConvert(FormatSink &sink, FormatLocale &locale, const FormatConversion &field,
                   FormatValue value) {
  switch (field.kind) {
    case FormatKind::End:
      break;
    case FormatKind::Literal:
    case FormatKind::HexFloat:
      FormatConvertChar(sink, field, field.character);
      break;
    case FormatKind::Signed:
      FormatConvertSigned(sink, locale, field, value.integer);
      break;
    case FormatKind::Unsigned:
      FormatConvertUnsigned(sink, locale, field, value.integer);
      break;
    case FormatKind::Octal:
      FormatConvertOctal(sink, field, value.integer);
      break;
    case FormatKind::Hex:
      FormatConvertHex(sink, field, value.integer);
      break;
    case FormatKind::Pointer:
      FormatConvertPointer(sink, field, value.pointer);
      break;
    case FormatKind::Char:
      FormatConvertChar(sink, field, static_cast<int>(value.integer));
      break;
    case FormatKind::String:
      FormatConvertString(sink, field, value.pointer);
      break;
    case FormatKind::Float:
      FormatConvertFloat(sink, locale, field, value.real);
      break;
    case FormatKind::Count:
      StoreCount(field, sink.Count(), const_cast<void *>(value.pointer));
      break;
  }
}
