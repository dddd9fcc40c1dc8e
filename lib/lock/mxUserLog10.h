// mxUserLog10.h -- logarithms in fixed point, for the bins of histograms.
//
// Idea:  the binary logarithm of x is the position of its leading one, plus the logarithm of x scaled to
//        [1, 2).  For the latter the 8 bits after the leading one choose a row of a table, and the 16 bits
//        after those a point on the line to the next row.  No floating point, no library.  Between two
//        rows the line is at most 0.18 units of the last place below the curve.
// Tests: tests/unit/lock_test.cpp
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

struct MXUserLog10 {
  static constexpr unsigned kFractionBits = 16;
  static constexpr uint32_t kOne = 1 << kFractionBits;
  static constexpr uint32_t kLog2Of10 = 217705;  // 65536 * log2 10, rounded down
  static constexpr unsigned kIndexBits = 8;

  // log2(1 + i / 256), rounded.
  static constexpr std::array<uint32_t, (1 << kIndexBits) + 1> kTable = [] {
    std::array<uint32_t, (1 << kIndexBits) + 1> table{};
    for (unsigned i = 0; i < table.size() - 1; i++) {
      // Squaring doubles the logarithm; when that reaches 1, the next binary digit is a one.
      double rest = 1.0 + i / 256.0;
      uint32_t digits = 0;
      for (unsigned n = 0; n <= kFractionBits; n++) {
        rest *= rest;
        digits <<= 1;
        if (rest < 2) continue;
        rest /= 2;
        digits |= 1;
      }
      table[i] = (digits + 1) / 2;
    }
    table.back() = kOne;
    return table;
  }();

  // 65536 * log2 x, for x > 0.
  static constexpr uint32_t Log2(uint64_t x) {
    const auto zeros = static_cast<unsigned>(std::countl_zero(x | 1));
    const uint64_t below = x << zeros << 1;  // the leading one is shifted out
    const auto index = static_cast<size_t>(below >> (64 - kIndexBits));
    const uint64_t between = below >> (64 - kIndexBits - kFractionBits) & (kOne - 1);
    const uint64_t step = kTable[index + 1] - kTable[index];
    return (63 - zeros) * kOne + kTable[index] + static_cast<uint32_t>(step * between / kOne);
  }

  // floor(scale * log10(value / unit)), for value >= unit > 0.  The quotient has as many binary digits as
  // there is room for.
  static constexpr uint64_t Scaled(uint64_t scale, uint64_t value, uint64_t unit) {
    const auto shift = static_cast<unsigned>(std::countl_zero(value));
    return scale * (Log2((value << shift) / unit) - shift * kOne) / kLog2Of10;
  }
};

static_assert(MXUserLog10::kTable[128] == 38336);  // log2 1.5
