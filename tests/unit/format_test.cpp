// format_test.cpp -- the printf engine, with the host's printf as second opinion where both must
// agree.
//
// Not compared, for they differ by design: %p, %a, null and wide strings, unknown conversions, the
// flag 0 for strings, halves without decimals.  These have tables.  Random formats:
// fuzz/format_fuzz.cpp.

#include <gtest/gtest.h>
#include <signal.h>

#include <bit>
#include <cerrno>
#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "tests/support/allocFault.h"
#include "tests/support/capture.h"
#include "tests/support/printfPeer.h"

namespace {

using std::string;

template <typename T>
void IntegerGrid(const string &size) {
  const int64_t values[] = {
      0,       1,       -1,       8,         99,        -100,     0x123456789abcdef0,
      INT_MIN, INT_MAX, UINT_MAX, 1LL << 32, INT64_MIN, 999999999};
  for (const string &flags : FlagSets("-+ #0")) {
    for (const char *const extent : {"", "7", "30", ".", ".6", "1.1", "7.0", "30.25"}) {
      for (const char conversion : {'d', 'u', 'o', 'x', 'X'}) {
        const string format = "<%" + flags + extent + size + conversion + ">";
        for (const int64_t value : values) Agree(format, static_cast<T>(value));
        if (testing::Test::HasFatalFailure()) return;
      }
    }
  }
}

TEST(Format, IntegersAgreeWithTheHost) {
  for (const char *const size : {"", "h", "hh"}) IntegerGrid<int>(size);
  for (const char *const size : {"l", "ll", "q", "L", "j", "t", "z", "Z"})
    IntegerGrid<int64_t>(size);
}

// Doubles that are hard to print: powers, halves, the ends of the range, any bits.
std::vector<double> HardDoubles() {
  std::vector<double> values = {0.0,       0.1,       1.0 / 3,  0.5,     1.5,
                                9.995,     99999.5,   999999.5, 5e-5,    1e22,
                                9.9999e-5, 9.9999995, 0.006,    1e100,   0x1p63,
                                INFINITY,  NAN,       DBL_MAX,  DBL_MIN, DBL_TRUE_MIN};
  std::mt19937_64 random(20240305);
  for (int i = 0; i < 300; ++i) {
    values.push_back(std::bit_cast<double>(random()));
    const int exponent = static_cast<int>(random() % 140);
    values.push_back(std::ldexp(static_cast<double>(random() >> 11), -exponent));
  }
  for (size_t i = values.size(); i-- > 0;) values.push_back(-values[i]);
  return values;
}

TEST(Format, FloatingPointAgreesWithTheHost) {
  const std::vector<double> values = HardDoubles();
  for (const char *const precision : {"", ".1", ".3", ".16", ".17", ".19", ".20", ".40", ".1100"}) {
    for (const char conversion : {'e', 'E', 'f', 'F', 'g', 'G'}) {
      for (const double value : values) Agree(string("%") + precision + conversion, value);
      if (HasFatalFailure()) return;
    }
  }
  for (const string &flags : FlagSets("-+ #0")) {
    for (const char *const size : {"", "14", "14.0", ".0", "12.2"}) {
      for (const char conversion : {'e', 'g', 'F', 'G'}) {
        for (const double value : {0.0, -0.0, 3.0, -1234567.875, 1e-7, 1e100, HUGE_VAL, -HUGE_VAL})
          Agree("<%" + flags + size + conversion + ">", value);
        if (HasFatalFailure()) return;
      }
    }
  }
  // Without decimals halves are rounded away from zero.
  for (const double value : values) {
    ASSERT_EQ(Host("%.0f", std::round(value)), Ours("%.0f", value));
  }
}

TEST(Format, OwnForms) {
  void *const pointer = reinterpret_cast<void *>(0x1234abcd);
  char *const null = nullptr;
  const wchar_t wide[] = {'a', 0xe9, 0x20ac, 0xd800, 0x1f600, 0x10ffff, 0x10000, 0x1f601, 0};
  const std::pair<string, string> rows[] = {
      {"1234ABCD", Ours("%p", pointer)},
      {"     001234ABCD|0", Ours("%#15.10p|%p", pointer, null)},
      {"(null)|   (nu|(null)", Ours("%s|%6.3s|%ls", null, null, null)},
      {"a\xc3\xa9\xe2\x82\xac\xed\xa0\x80\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf\xf0\x90\x80\x80\xf0\x9f"
       "\x98\x81",
       Ours("%ls", wide)},
      {"a\xc3\xa9\xe2\x82\xac|   a|a\xc3\xa9|",
       Ours("%.6S|%4.2ls|%.5ls|%.0ls", wide, wide, wide, wide)},
      {"-5000000000|5000000000|1000000000000",
       Ours("%D|%U|%O", -5000000000LL, 5000000000LL, 1LL << 36)},
      {"5000000000|5000000000|7", Ours("%I64d|%Iu|%I32d", 5000000000LL, size_t{5000000000}, 7)},
      {"00abc|0000a", Ours("%05s|%05c", "abc", 'a')},
      {"k|  \xe9|!|   %|1", Ours("%k|%3l\xe9|%!|%4%|%d", 1)},
      {"a|A|0.1", Ours("%a|%A|%Lg", 1.0, 1.0, 0.1L)},
      {" 7 |3  |-3|1", Ours("%3 -d|%h3-d|%.1.0hhd|%d%-05.3l", 7, 3, -3, 1)},
  };
  for (const auto &[expected, actual] : rows) EXPECT_EQ(expected, actual);
}

TEST(Format, WideCharactersDependOnTheLocale) {
  char buffer[] = "########";
  EXPECT_EQ(-1, OursInto(buffer, sizeof buffer, "ab%lccd", 0x20ac));
  EXPECT_EQ(EILSEQ, errno);
  EXPECT_STREQ("ab", buffer);
  ASSERT_NE(nullptr, setlocale(LC_CTYPE, "C.UTF-8"));
  Agree("<%lc|%5lc>", 0x20ac, 0xe9);
  setlocale(LC_CTYPE, "C");

  const wchar_t illegal[] = {'a', 0x110000, 'b', 0};
  EXPECT_EQ("Panic: NOT_IMPLEMENTED lib/string/bsd_vsnprintf:414\n",
            FatalText([&] { Ours("%ls", illegal); }));
  // Where the precision ends the text first, nobody sees it.
  EXPECT_EQ("a\xef\xbf\xbd", Ours("%.4ls", illegal));
}

TEST(Format, StoresTheCountInNoMoreThanItsSize) {
  signed char c[2] = {-1, -1};
  short h[2] = {-1, -1};
  int64_t l = -1;
  char buffer[4];
  EXPECT_EQ(10, OursInto(buffer, sizeof buffer, "%hhna%hnbcdefghij%ln", c, h, &l));
  EXPECT_TRUE(c[0] == 0 && h[0] == 1 && l == 10 && c[1] == -1 && h[1] == -1);
}

TEST(Format, Positions) {
  Agree("%1$s%1$s %3$*2$d|%3$-*2$.*4$d", "a", 6, 42, 4);
  // More positions than the tables have at first, in any order.
  Agree("%12$d %11$s %10$g %9$d %8$d %7$lld %6$d %5$d %4$d %3$d %2$s %1$d", 1, "b", 3, 4, 5, 6, 7LL,
        8, 9, 1.5, "k", 12);
  // Without a position: the next in turn, also before the first `$` and after a `*` with one.
  EXPECT_EQ("a|c|4", Ours("%s|%3$s|%d", "a", "b", "c", 4));
  EXPECT_EQ("a|   5|4", Ours("%s|%*3$d|%d", "a", 5, 4));
  // Positions that no conversion names, and one that is none.
  EXPECT_EQ("3 1", Ours("%3$s %1$s", "1", 2, "3"));
  EXPECT_EQ("000$", Ours("%*0$", 4));
}

TEST(Format, CapturedValues) {
  FormatValue values[4] = {};
  values[0].pointer = "text";
  values[1].integer = -3;
  values[2].real = 0.5;
  values[3].integer = 6;
  const auto print = [&](const char *format) {
    char *text = nullptr;
    const int length = bsd_vsnprintf_values(&text, 0, format, values);
    return PeerTake(text, length);
  };
  EXPECT_EQ("text -3 0.5 6|    -3|6  |4294967293", print("%s %d %g %d|%2$*4$d|%4$*2$d|%2$u"));
  EXPECT_EQ(kPeerFailed, print("%5$d"));
  EXPECT_EQ(kPeerFailed, print("%s %d %g %d %d"));
  EXPECT_EQ(EINVAL, errno);
}

string Core(const char *grouping, const char *format, ...) {
  va_list args;
  va_start(args, format);
  char *text = nullptr;
  const int length = bsd_vsnprintf_core(&text, grouping, ',', "::", 0, format, args);
  va_end(args);
  return PeerTake(text, length);
}

TEST(Format, NumeralsOfTheCaller) {
  struct {
    const char *grouping, *format, *expected;
  } const rows[] = {{"\3\2", "%'lld", "12,34,567"},         {"\2\177", "%'lld", "12345,67"},
                    {nullptr, "%'lld", "1234567"},          {"\3", "%'x", "12d687"},
                    {"\3", "%'+015lld", "+000001,234,567"}, {"\3", "%'-12llu|", "1,234,567   |"}};
  for (const auto &row : rows) EXPECT_EQ(row.expected, Core(row.grouping, row.format, 1234567LL));
  EXPECT_EQ("-9,223,372,036,854,775,808|0|", Core("\3", "%'lld|%'d|%'.0d", INT64_MIN, 0, 0));
  EXPECT_EQ("1::5 2:: 3 1::e+00", Core(nullptr, "%g %#.0f %.0f %#.0e", 1.5, 2.0, 3.0, 1.0));
}

TEST(Format, CountsAboveIntMaxFail) {
  char buffer[8];
  EXPECT_EQ(INT_MAX, OursInto(buffer, sizeof buffer, "%2147483647d", 1));
  EXPECT_STREQ("       ", buffer);
  EXPECT_EQ(INT_MAX, OursInto(buffer, sizeof buffer, "%.*f", INT_MAX - 2, 1.0));
  for (const string format : {"%2147483647d.", "%2147483648d%1$d", ".%-2147483647d",
                              "%.2147483647f", "%99999999999999999999d ", "%+.2147483647d"}) {
    memset(buffer, '#', sizeof buffer);
    errno = 0;
    EXPECT_EQ(-1, OursInto(buffer, sizeof buffer, format.c_str(), 1.0, 1.0)) << format;
    EXPECT_EQ(EOVERFLOW, errno);
    EXPECT_LT(strnlen(buffer, sizeof buffer), sizeof buffer) << format;
  }
}

TEST(Format, ExhaustedMemoryIsAFailureAtEveryPlace) {
  const wchar_t wide[] = {'w', 0x20ac, 0};
  const auto print = [&] {
    return Ours("%1$70s %2$ls %3$.30e %3$.9f %12$d %4$s", "a", wide, 0.1, "d", 5, 6, 7, 8, 9, 10,
                11, 12);
  };
  int aborts = 0, nth = 1;
  for (bool fired = true; fired; ++nth) {
    AllocFault fault(nth);
    // Without room for the types at all positions the process ends.
    const bool abortsHere = RunInChild(print).signal == SIGABRT;
    aborts += abortsHere ? 1 : 0;
    if (abortsHere) continue;
    const string text = print();
    fired = fault.Fired();
    EXPECT_EQ(fired, text == kPeerFailed) << nth;
    EXPECT_TRUE(!fired || errno == ENOMEM);
  }
  EXPECT_EQ(1, aborts);
  EXPECT_GT(nth, 6);
}

}  // namespace
