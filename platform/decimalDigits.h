// decimalDigits.h -- the exact decimal digits of a double, correctly rounded.
#pragma once

// `value` is finite and not negative; `count` is at least 1.  The value is 0.DDD... times ten to
// the power `*point`, where DDD... are the digits of the result: a new string that the caller
// frees.  Null with errno ENOMEM if memory is exhausted.  Any thread.

// `count` significant digits.  Of zero: zeros, with *point 1.
[[nodiscard]] char *Platform_SignificantDigits(double value, int count, int *point);

// All digits up to the one `count` places after the decimal point, without leading zeros; if only zeros
// are left, "" with *point -count.  Of zero: `count` zeros, with *point 0.
[[nodiscard]] char *Platform_FixedDigits(double value, int count, int *point);
