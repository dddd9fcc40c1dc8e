// formatConvertFloat.cpp -- e E f F g G: doubles, from the decimal digits that the host gives.
//
// Tests: tests/unit/format_test.cpp, fuzz/format_fuzz.cpp

#include <algorithm>
#include <cmath>
#include <cstring>

#include "lib/string/formatConvert.h"
#include "lib/string/formatField.h"
#include "platform/decimalDigits.h"

namespace {

// No double has more decimals than this that are not zero, nor more significant digits; more need
// not be asked for.
constexpr int kMaxDecimals = 1074;

constexpr int kDefaultPrecision = 6;

// The digits of a number without zeros at the end.  Zero has none, and its point is that of the one
// digit that is printed.
struct Decimal : PlatformDecimal {
  [[nodiscard]] bool SetSignificant(double value, int wanted) {
    return Strip(Platform_SignificantDigits(value, std::min(wanted, kMaxDecimals + 1), this));
  }

  // For no decimals halves are rounded away from zero: the value is made whole first, and its one
  // decimal, a zero, goes with the trailing zeros.
  [[nodiscard]] bool SetFixed(double value, int decimals) {
    if (decimals == 0) {
      value = std::round(value);
      decimals = 1;
    }
    return Strip(Platform_FixedDigits(value, std::min(decimals, kMaxDecimals), this));
  }

 private:
  bool Strip(bool isThere) {
    if (!isThere) return false;
    while (count > 0 && digits[count - 1] == '0') --count;
    if (count == 0) point = 1;
    return true;
  }
};

// A number in runs, in the order in which they are printed.
struct Runs {
  char sign = '\0';
  const char *whole = "";  // digits before the point, then zeros
  size_t wholeCount = 0;
  size_t wholeZeros = 0;
  bool hasPoint = false;
  size_t leadingZeros = 0;  // behind the point: zeros, digits, zeros
  const char *fraction = "";
  size_t fractionCount = 0;
  size_t trailingZeros = 0;
  char exponent[8];  // e+308
  size_t exponentCount = 0;
};

// `places` digits before the point, one at least, and `decimals` behind it.  Below zero, as many
// zeros follow the point before the first digit.
void LayOutDigits(Runs *runs, const Decimal &decimal, int places, size_t decimals) {
  const size_t before = static_cast<size_t>(std::max(places, 0));
  runs->whole = decimal.digits;
  runs->wholeCount = std::min(decimal.count, before);
  runs->wholeZeros = std::max<size_t>(before, 1) - runs->wholeCount;
  runs->leadingZeros = std::min(static_cast<size_t>(std::max(-places, 0)), decimals);
  runs->fraction = decimal.digits + runs->wholeCount;
  runs->fractionCount = std::min(decimal.count - runs->wholeCount, decimals - runs->leadingZeros);
  runs->trailingZeros = decimals - runs->leadingZeros - runs->fractionCount;
}

void LayOutFixed(Runs *runs, const Decimal &decimal, size_t decimals) {
  LayOutDigits(runs, decimal, decimal.point, decimals);
}

// The first digit, and the others behind the point.
void LayOutExponent(Runs *runs, const Decimal &decimal, size_t decimals, char letter) {
  LayOutDigits(runs, decimal, 1, decimals);
  const int exponent = decimal.point - 1;
  const int magnitude = std::abs(exponent);
  char *to = runs->exponent;
  *to++ = letter;
  *to++ = exponent < 0 ? '-' : '+';
  if (magnitude >= 100) *to++ = static_cast<char>('0' + magnitude / 100);
  *to++ = static_cast<char>('0' + magnitude / 10 % 10);
  *to++ = static_cast<char>('0' + magnitude % 10);
  runs->exponentCount = static_cast<size_t>(to - runs->exponent);
}

// g: fixed or exponent, as the exponent goes; without zeros at the end unless # asks for them.
void LayOutGeneral(Runs *runs, const Decimal &decimal, const FormatConversion &field,
                   int64_t precision) {
  const int exponent = decimal.point - 1;
  const bool isFixed = exponent >= -4 && exponent < precision;
  const int64_t digitsBeforePoint = isFixed ? decimal.point : 1;
  int64_t decimals = precision - digitsBeforePoint;
  if (!field.Has(kFormatAlternate)) {
    const int64_t needed = static_cast<int64_t>(decimal.count) - digitsBeforePoint;
    decimals = std::clamp<int64_t>(needed, 0, decimals);
  }
  if (isFixed) {
    LayOutFixed(runs, decimal, static_cast<size_t>(decimals));
  } else {
    LayOutExponent(runs, decimal, static_cast<size_t>(decimals),
                   field.character == 'G' ? 'E' : 'e');
  }
}

// False when there is no memory.
bool LayOut(Runs *runs, Decimal *decimal, const FormatConversion &field, double magnitude) {
  const int precision = field.HasPrecision() ? field.precision.number : kDefaultPrecision;
  const size_t decimals = static_cast<size_t>(precision);
  switch (field.character) {
    case 'e':
    case 'E':
      if (!decimal->SetSignificant(magnitude, std::min(precision, kMaxDecimals) + 1)) return false;
      LayOutExponent(runs, *decimal, decimals, field.character);
      return true;
    case 'f':
    case 'F':
      if (!decimal->SetFixed(magnitude, precision)) return false;
      LayOutFixed(runs, *decimal, decimals);
      return true;
    default: {
      const int digits = std::max(precision, 1);
      if (!decimal->SetSignificant(magnitude, digits)) return false;
      LayOutGeneral(runs, *decimal, field, digits);
      return true;
    }
  }
}

void Print(FormatSink &sink, FormatLocale &locale, const FormatConversion &field, const Runs &runs,
           bool mayZero) {
  const char *const point = runs.hasPoint ? locale.Get().decimalPoint : "";
  const size_t pointLength = strlen(point);
  const size_t signLength = runs.sign == '\0' ? 0 : 1;
  const size_t length = signLength + runs.wholeCount + runs.wholeZeros + pointLength +
                        runs.leadingZeros + runs.fractionCount + runs.trailingZeros +
                        runs.exponentCount;
  const FormatPadding padding = FormatPaddingOf(field, length, mayZero);
  sink.MakeRoom(padding.Total() + length);
  sink.Fill(' ', padding.blanksBefore);
  sink.Fill(runs.sign, signLength);
  sink.Fill('0', padding.zeros);
  sink.Write(runs.whole, runs.wholeCount);
  sink.Fill('0', runs.wholeZeros);
  sink.Write(point, pointLength);
  sink.Fill('0', runs.leadingZeros);
  sink.Write(runs.fraction, runs.fractionCount);
  sink.Fill('0', runs.trailingZeros);
  sink.Write(runs.exponent, runs.exponentCount);
  sink.Fill(' ', padding.blanksBehind);
}

bool IsUpper(char c) {
  return c >= 'A' && c <= 'Z';
}

}  // namespace

void FormatConvertFloat(FormatSink &sink, FormatLocale &locale, const FormatConversion &field,
                        double value) {
  Runs runs;
  Decimal decimal;
  // What is not a number has no sign, whatever its bits say.
  runs.sign = FormatSignOf(field, std::signbit(value) && !std::isnan(value));
  const bool isFinite = std::isfinite(value);
  if (!isFinite) {
    const bool upper = IsUpper(field.character);
    runs.whole = std::isnan(value) ? (upper ? "NAN" : "nan") : (upper ? "INF" : "inf");
    runs.wholeCount = 3;
  } else if (!LayOut(&runs, &decimal, field, std::fabs(value))) {
    return sink.Fail();
  }
  runs.hasPoint = isFinite && (runs.leadingZeros + runs.fractionCount + runs.trailingZeros > 0 ||
                               field.Has(kFormatAlternate));
  Print(sink, locale, field, runs, isFinite);
}
