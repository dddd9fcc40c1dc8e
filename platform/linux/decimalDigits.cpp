// decimalDigits.cpp -- decimal digits on Linux, in arithmetic of our own.
//
// glibc's ecvt and fcvt stop at 17 digits and are inexact for large exponents.  Its printf is exact, but
// slow, and the digits would have to be picked out of its text.  Here there are two ways:
//
//   Estimate  for 2 to 17 significant digits: the value times a power of ten, in floating point of 128
//             bits whose error has a known bound.  Where an error that large could change the digits,
//             Estimate gives up; apart from exact halves that practically never happens.
//   Expand    for anything else: long division of the whole part by 10^16 and long multiplication of
//             the fraction by it, 16 digits at a time.  All digits are exact, and so is their rounding.
//
// Tests: tests/unit/format_test.cpp, with glibc's printf as the second opinion

#include "platform/decimalDigits.h"

#include <float.h>
#include <string.h>

#include <array>
#include <bit>
#include <cstdint>
#include <optional>

namespace {

__extension__ using Wide = unsigned __int128;

constexpr int kMantissaBits = DBL_MANT_DIG;
constexpr uint64_t kChunk = 10'000'000'000'000'000;  // ten to the power kChunkDigits
constexpr int kChunkDigits = 16;

// mantissa * 2^exponent.
struct Binary {
  uint64_t mantissa;
  int exponent;

  explicit Binary(double value) {
    constexpr int kFractionBits = kMantissaBits - 1;
    const auto bits = std::bit_cast<uint64_t>(value);
    const int biased = static_cast<int>(bits >> kFractionBits);
    mantissa = bits & ((uint64_t{1} << kFractionBits) - 1);
    if (biased != 0) mantissa |= uint64_t{1} << kFractionBits;
    exponent = (biased == 0 ? 1 : biased) - (DBL_MAX_EXP - 1 + kFractionBits);
  }
};

// ---- digits ---------------------------------------------------------------------------------

static_assert(std::endian::native == std::endian::little);

// The eight digits of a number as bytes, the first one lowest: halves, quarters, single digits, with
// division by multiplication in each lane.
uint64_t EightDigits(uint64_t number) {
  uint64_t lanes = number / 10000 | number % 10000 << 32;
  const uint64_t hundreds = lanes * 10486 >> 20 & 0x7F0000007F;
  lanes = hundreds | (lanes - 100 * hundreds) << 16;
  const uint64_t tens = lanes * 103 >> 10 & 0xF000F000F000F;
  return tens | (lanes - 10 * tens) << 8;
}

// The digits as they come.  The first is not zero.
class Digits {
  PlatformDecimal &to_;

 public:
  explicit Digits(PlatformDecimal *to) : to_(*to) { to->count = 0, to->point = 0; }

  int Count() const { return static_cast<int>(to_.count); }
  int Point() const { return to_.point; }
  void SetPoint(int point) { to_.point = point; }

  // The next 16 digits.  Zeros before the first digit move the point instead.
  void Append(uint64_t chunk) {
    constexpr uint64_t kZeros = 0x3030303030303030;
    const uint64_t halves[] = {EightDigits(chunk / 100'000'000), EightDigits(chunk % 100'000'000)};
    const uint64_t text[] = {halves[0] | kZeros, halves[1] | kZeros};
    int zeros = 0;
    if (to_.count == 0) {
      zeros = std::countr_zero(halves[0]) / 8;
      if (halves[0] == 0) zeros += std::countr_zero(halves[1]) / 8;
      to_.point -= zeros;
    }
    const size_t count = static_cast<size_t>(kChunkDigits - zeros);
    memcpy(to_.digits + to_.count, reinterpret_cast<const char *>(text) + zeros, count);
    to_.count += count;
  }

  // Keeps `kept` digits, rounded to nearest, halves to even.  `more`: what follows the digits here
  // is not zero.
  void Round(int kept, bool more) {
    if (kept >= Count()) return;
    const bool up = kept >= 0 && IsAboveHalf(static_cast<size_t>(kept), more);
    to_.count = kept < 0 ? 0 : static_cast<size_t>(kept);
    if (!up) return;
    while (to_.count > 0 && to_.digits[to_.count - 1] == '9') --to_.count;
    if (to_.count > 0) {
      ++to_.digits[to_.count - 1];
    } else {
      to_.digits[to_.count++] = '1';
      ++to_.point;
    }
  }

 private:
  // Whether the digits from `kept` on are more than half of the place before them, or half of an odd
  // digit.
  bool IsAboveHalf(size_t kept, bool more) const {
    const char *const digits = to_.digits;
    if (digits[kept] != '5') return digits[kept] > '5';
    for (size_t i = kept + 1; i < to_.count; ++i) more |= digits[i] != '0';
    return more || (kept > 0 && digits[kept - 1] % 2 != 0);
  }
};

// ---- 2 to 17 significant digits -------------------------------------------------------------

// bits * 2^exponent, with the highest bit set; a little less than the number that it stands for.
struct Float128 {
  Wide bits;
  int exponent;
};

// `number` is not 0.
constexpr Float128 Normalized(uint64_t number, int exponent) {
  const int zeros = std::countl_zero(number) % 64;
  return {Wide{number} << (64 + zeros), exponent - 64 - zeros};
}

// Too small by less than 8 in the last place, in addition to what a and b are.
constexpr Float128 Multiply(Float128 a, Float128 b) {
  const auto high = [](Wide wide) { return static_cast<uint64_t>(wide >> 64); };
  const auto low = [](Wide wide) { return static_cast<uint64_t>(wide); };
  const Wide bits = Wide{high(a.bits)} * high(b.bits) + high(Wide{high(a.bits)} * low(b.bits)) +
                    high(Wide{low(a.bits)} * high(b.bits));
  const int shift = high(bits) >> 63 != 0 ? 0 : 1;
  return {bits << shift, a.exponent + b.exponent + 128 - shift};
}

// Powers of five: every 28th, and those between.
constexpr int kStep = 28;
constexpr int kSteps = 12;  // up and down
constexpr auto kFarPowers = [] {
  std::array<Float128, 2 * kSteps + 1> powers{};
  const Float128 five = Normalized(5, 0);
  const Float128 fifth = {~Wide{0} / 5 * 4, -130};
  powers[kSteps] = Normalized(1, 0);
  for (size_t i = 1; i <= kSteps; ++i) {
    Float128 up = powers[kSteps + i - 1];
    Float128 down = powers[kSteps - i + 1];
    for (int n = 0; n < kStep; ++n) up = Multiply(up, five), down = Multiply(down, fifth);
    powers[kSteps + i] = up;
    powers[kSteps - i] = down;
  }
  return powers;
}();
constexpr auto kNearPowers = [] {
  std::array<Float128, kStep> powers{};
  uint64_t power = 1;
  for (Float128 &row : powers) row = Normalized(power, 0), power *= 5;
  return powers;
}();

// The whole number nearest to `value` times ten to the power `power`, a product between 2 and 2^60;
// nothing if the error may matter.  Of at most 340 multiplications that is less than 5,000 in the
// last place, and the fraction has 68 bits at least.
std::optional<uint64_t> Scale(Float128 value, int power) {
  constexpr Wide kDoubt = 1 << 13;
  const int step = (power + kSteps * kStep) / kStep;
  const int rest = (power + kSteps * kStep) % kStep;
  const Float128 scale =
      Multiply(kFarPowers[static_cast<size_t>(step)], kNearPowers[static_cast<size_t>(rest)]);
  const Float128 scaled = Multiply(scale, value);
  const int fractionBits = -(scaled.exponent + power);
  const Wide half = Wide{1} << (fractionBits - 1);
  const Wide fraction = scaled.bits & (2 * half - 1);
  if (fraction - (half - kDoubt) <= 2 * kDoubt) return std::nullopt;
  return static_cast<uint64_t>(scaled.bits >> fractionBits) + (fraction > half ? 1 : 0);
}

// `count` significant digits, if these are 2 to 17 and their rounding is beyond doubt.
bool Estimate(const Binary &value, int count, Digits *digits) {
  static constexpr auto kPowersOf10 = [] {
    std::array<uint64_t, 18> powers{1};
    for (size_t i = 1; i < powers.size(); ++i) powers[i] = 10 * powers[i - 1];
    return powers;
  }();
  if (count < 2 || count >= static_cast<int>(kPowersOf10.size())) return false;
  const Float128 normalized = Normalized(value.mantissa, value.exponent);
  // The exponent of ten from that of two, which is right or one too small.
  int exponent = (normalized.exponent + 127) * 78913 >> 18;
  std::optional<uint64_t> number = Scale(normalized, count - 1 - exponent);
  if (number && *number >= kPowersOf10[static_cast<size_t>(count)]) {
    ++exponent;
    number = Scale(normalized, count - 1 - exponent);
  }
  if (!number) return false;
  if (*number >= kChunk) digits->Append(*number / kChunk);
  digits->Append(*number % kChunk);
  digits->SetPoint(exponent + 1);
  return true;
}

// ---- any number of digits -------------------------------------------------------------------

// A value as a number of many 64-bit limbs, the lowest first.  All of it outside [low_, high_) is
// zero; the fraction is below point_.
class LongNumber {
  uint64_t limbs_[DBL_MAX_EXP / 64 + 4];
  size_t low_;
  size_t point_;
  size_t high_;

 public:
  explicit LongNumber(const Binary &value) {
    const int exponent = value.exponent;
    point_ = exponent < 0 ? (static_cast<size_t>(-exponent) + 63) / 64 : 0;
    const size_t shift = 64 * point_ + static_cast<size_t>(exponent);
    low_ = shift / 64;
    high_ = low_ + 2;
    const Wide placed = Wide{value.mantissa} << shift % 64;
    for (size_t i = 0; i < low_; ++i) limbs_[i] = 0;
    limbs_[low_] = static_cast<uint64_t>(placed);
    limbs_[low_ + 1] = static_cast<uint64_t>(placed >> 64);
  }

  // All digits of the whole part.
  void AppendWhole(Digits *digits) {
    uint64_t chunks[DBL_MAX_10_EXP / kChunkDigits + 1];
    size_t count = 0;
    while (high_ > point_) {
      if (limbs_[high_ - 1] == 0) {
        --high_;
      } else {
        chunks[count++] = DivideWhole();
      }
    }
    while (count > 0) digits->Append(chunks[--count]);
    digits->SetPoint(digits->Count());
    DropZeros();
  }

  bool HasFraction() const { return low_ < high_; }

  // Takes the next 16 digits off the fraction.
  uint64_t TakeDecimals() {
    uint64_t carry = 0;
    for (size_t i = low_; i < high_; ++i) {
      const Wide product = Wide{limbs_[i]} * kChunk + carry;
      limbs_[i] = static_cast<uint64_t>(product);
      carry = static_cast<uint64_t>(product >> 64);
    }
    DropZeros();
    if (high_ == point_) return carry;
    if (carry != 0) limbs_[high_++] = carry;
    return 0;
  }

 private:
  void DropZeros() {
    while (low_ < high_ && limbs_[low_] == 0) ++low_;
  }

  // Divides the whole part by 10^16; returns the remainder.
  uint64_t DivideWhole() {
    uint64_t remainder = 0;
    for (size_t i = high_; i-- > point_;) {
      const Wide dividend = Wide{remainder} << 64 | limbs_[i];
      limbs_[i] = static_cast<uint64_t>(dividend / kChunk);
      remainder = static_cast<uint64_t>(dividend % kChunk);
    }
    return remainder;
  }
};

// `count` significant digits, or those up to `count` decimals.
enum class Mode { kSignificant, kFixed };

void Expand(const Binary &value, Mode mode, int count, Digits *digits) {
  LongNumber number(value);
  number.AppendWhole(digits);
  for (int decimals = 0; number.HasFraction(); decimals += kChunkDigits) {
    if ((mode == Mode::kSignificant ? digits->Count() : decimals) > count) break;
    digits->Append(number.TakeDecimals());
  }
  const int kept = mode == Mode::kSignificant ? count : digits->Point() + count;
  digits->Round(kept, number.HasFraction());
}

}  // namespace

bool Platform_SignificantDigits(double value, int count, PlatformDecimal *decimal) {
  Digits digits(decimal);
  if (value == 0) return true;
  const Binary binary(value);
  if (!Estimate(binary, count, &digits)) Expand(binary, Mode::kSignificant, count, &digits);
  return true;
}

bool Platform_FixedDigits(double value, int count, PlatformDecimal *decimal) {
  Digits digits(decimal);
  Expand(Binary(value), Mode::kFixed, count, &digits);
  return true;
}
