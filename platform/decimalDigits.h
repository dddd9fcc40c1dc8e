// decimalDigits.h -- the exact decimal digits of a double, correctly rounded.
#pragma once

#include <cstddef>

// 0.DDD... times ten to the power `point`.  There may be zeros behind the last other digit.  Of zero
// the digits are zeros or none, and the point means nothing.
struct PlatformDecimal {
  char digits[1152];  // without a NUL; a double has all its digits in the first 1,075
  size_t count;
  int point;
};

// `value` is finite and not negative; `count` is at least 1 and at most 1,075.  False with errno
// ENOMEM when there is no memory.  Any thread.

// `count` significant digits.
[[nodiscard]] bool Platform_SignificantDigits(double value, int count, PlatformDecimal *decimal);

// All digits up to the one `count` places behind the decimal point, from the first that is not zero
// on.
[[nodiscard]] bool Platform_FixedDigits(double value, int count, PlatformDecimal *decimal);
