// formatFloat_test.cpp -- floating point: every digit as the host's printf has it.

#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "tests/support/printfPeer.h"

namespace {

using std::string;

// Doubles that are hard to print: powers, halves, the ends of the range, any bits.
std::vector<double> HardDoubles(int anyCount) {
  std::vector<double> values = {0.0,     0.1,     1.0 / 3,      0.5,         1.5,       2.5,
                                9.995,   99999.5, 999999.5,     123456.7891, 5e-5,      1e-5,
                                1e15,    1e16,    1e22,         1e23,        9.9999e-5, 9.9999995,
                                0.001,   0.006,   0x1p-12,      1.7e13,      0x1p63,    0x1p64,
                                DBL_MAX, DBL_MIN, DBL_TRUE_MIN, INFINITY,    NAN};
  std::mt19937_64 random(20240305);
  for (int i = 0; i < anyCount; ++i) {
    values.push_back(std::bit_cast<double>(random()));
    const int exponent = static_cast<int>(random() % 140);
    values.push_back(std::ldexp(static_cast<double>(random() >> 11), -exponent));
  }
  const size_t count = values.size();
  for (size_t i = 0; i < count; ++i) values.push_back(-values[i]);
  return values;
}

TEST(FormatFloat, AgreesWithTheHost) {
  const std::vector<double> values = HardDoubles(300);
  for (const char *const precision : {"", ".1", ".3", ".16", ".17", ".19", ".20", ".40", ".1100"}) {
    for (const char conversion : {'e', 'E', 'f', 'F', 'g', 'G'}) {
      for (const double value : values) Agree(string("%") + precision + conversion, value);
      if (HasFatalFailure()) return;
    }
  }
  for (const string &flags : FlagSets("-+ #0")) {
    for (const char *const size : {"", "1", "14", "14.0", ".0", "12.2"}) {
      for (const char conversion : {'e', 'g', 'F', 'G'}) {
        for (const double value : {0.0, -0.0, 3.0, -1234567.875, 1e-7, 1e100, HUGE_VAL, -HUGE_VAL})
          Agree("<%" + flags + size + conversion + ">", value);
        if (HasFatalFailure()) return;
      }
    }
  }
}

TEST(FormatFloat, WithoutDecimalsHalvesRoundAwayFromZero) {
  for (const double value : HardDoubles(300)) {
    ASSERT_EQ(Host("%.0f", std::round(value)), Ours("%.0f", value));
  }
  EXPECT_EQ("1|-1|3|0|-0|3.|4503599627370498",
            Ours("%.0f|%.0f|%.0f|%.0f|%.0f|%#.0f|%.0f", 0.5, -0.5, 2.5, 0.49999999999999994, -0.25,
                 2.5, 4503599627370497.5));
}

}  // namespace
