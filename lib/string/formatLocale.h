// formatLocale.h -- how numbers are written: decimal point, grouping and its separator.
#pragma once

struct FormatNumerals {
  const char *decimalPoint;
  const char *grouping;  // as in localeconv; null for none
  char thousandsSeparator;
};

inline constexpr FormatNumerals kFormatPosixNumerals{".", nullptr, ','};

// The numerals that a caller chose, or those of the current locale.  The latter are looked up when the
// first number needs them: localeconv takes longer than a short conversion.
class FormatLocale {
  FormatNumerals numerals_;
  bool known_;

 public:
  FormatLocale() noexcept : numerals_(), known_(false) {}
  explicit FormatLocale(const FormatNumerals &numerals) noexcept
      : numerals_(numerals), known_(true) {}

  const FormatNumerals &Get() noexcept;
};
