// formatLocale.cpp -- the numerals of the current locale.
//
// Tests: tests/unit/format_test.cpp

#include "lib/string/formatLocale.h"

#include <clocale>

namespace {

// Digits are only grouped by a single ASCII character: of a longer separator one byte would be half
// a character.
bool CanSeparate(const char *separator) {
  const auto first = static_cast<unsigned char>(separator[0]);
  return first != '\0' && first < 0x80 && separator[1] == '\0';
}

}  // namespace

const FormatNumerals &FormatLocale::Get() noexcept {
  if (!known_) {
    const lconv *const current = localeconv();
    const char *const separator = current->thousands_sep;
    numerals_ = {current->decimal_point, CanSeparate(separator) ? current->grouping : nullptr,
                 separator[0]};
    known_ = true;
  }
  return numerals_;
}
