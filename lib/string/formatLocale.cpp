// formatLocale.cpp -- the numerals of the current locale.

#include "lib/string/formatLocale.h"

#include <clocale>

const FormatNumerals &FormatLocale::Get() noexcept {
  if (!known_) {
    const lconv *const current = localeconv();
    numerals_ = {current->decimal_point, current->grouping, current->thousands_sep[0]};
    known_ = true;
  }
  return numerals_;
}
