// format_test.cpp -- the printf engine, with the host's printf as second opinion where both must
// agree; bounded buffers: what a cut text looks like, what is fatal, and the bounded copies.
//
// What differs by design has a table: %p, %a, null and wide strings, unknown conversions, the flag 0
// for strings, halves without decimals, NaN's sign.  Whole formats, in sequence and by position:
// fuzz/format_fuzz.cpp; captured arguments: messages_test.cpp.

#include <bit>
#include <cfloat>
#include <climits>
#include <clocale>
#include <cmath>

#include "tests/support/allocFault.h"
#include "tests/support/printfPeer.h"
#include "tests/support/process.h"
#include "tests/support/scratchDir.h"
#include "tests/support/test.h"

namespace {

using std::string;

// One conversion at a time, with values of any size and doubles that are hard to print.
TEST(Format, AgreesWithTheHost) {
  const char *const extents[] = {"",    "7",   "30",    ".",   ".0",    "1.1",
                                 "7.0", ".17", "30.25", ".40", ".1100", "14.6"};
  const char *const sizes[] = {"", "h", "hh", "l", "ll", "q", "L", "j", "t", "z", "Z"};
  const double known[] = {0.0,  0.5,   1.5,      9.995, 1350,   99999.5, 5e-5,    9.9999e-5,
                          1e22, 1e100, INFINITY, NAN,   0x1p63, DBL_MAX, DBL_MIN, DBL_TRUE_MIN};
  std::mt19937_64 random(20240305);
  const auto pick = [&random](const auto &list) { return list[random() % std::size(list)]; };
  for (int round = Rounds(100'000); round > 0 && !HasFatalFailure(); round--) {
    string format = "%";
    for (const char flag : string("-+ #0'")) format.append(random() % 3 == 0, flag);
    format += pick(extents);
    const bool noDecimals = format.ends_with('.') || format.ends_with(".0");
    if (const string size = pick(sizes); size.empty() || size[0] == 'h') {
      const int value = static_cast<int>(random()) >> random() % 32;
      Agree(format + size + pick(string("diuoxX")), value);
    } else if (random() % 2 == 0) {
      const int64_t value = static_cast<int64_t>(random()) >> random() % 64;
      Agree(format + size + pick(string("diuoxX")), value);
    } else {
      const double whole = static_cast<double>(random() >> 11);
      const double values[] = {pick(known), std::bit_cast<double>(random()),
                               std::ldexp(whole, -static_cast<int>(random() % 140))};
      const double value = pick(values);
      const double sign = random() % 2 == 0 && !std::isnan(value) ? -1 : 1;
      Agree(format + pick(string("eEfFgG")),
            std::copysign(noDecimals ? std::round(value) : value, sign));
    }
  }
}

TEST(Format, OwnForms) {
  void *const pointer = reinterpret_cast<void *>(0x1234abcd);
  char *const null = nullptr;
  const wchar_t wide[] = {'a', 0xe9, 0x20ac, 0xd800, 0x1f600, 0x10ffff, 0};
  const wchar_t long4[] = {0x10000, 0x1f600, 0};  // four bytes each
  const std::pair<string, string> rows[] = {
      {"1234ABCD", Ours("%p", pointer)},
      {"     001234ABCD|0", Ours("%#15.10p|%p", pointer, null)},
      {"(null)|   (nu|(null)", Ours("%s|%6.3s|%ls", null, null, null)},
      {"a\xc3\xa9\xe2\x82\xac\xed\xa0\x80\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf", Ours("%ls", wide)},
      {"\xf0\x90\x80\x80\xf0\x9f\x98\x80", Ours("%ls", long4)},
      {"a\xc3\xa9\xe2\x82\xac|   a|a\xc3\xa9|",
       Ours("%.6S|%4.2ls|%.5ls|%.0ls", wide, wide, wide, wide)},
      {"-5000000000|5000000000|1000000000000",
       Ours("%D|%U|%O", -5000000000LL, 5000000000LL, 1LL << 36)},
      {"5000000000|5000000000|7", Ours("%I64d|%Iu|%I32d", 5000000000LL, size_t{5000000000}, 7)},
      {"00abc|0000a", Ours("%05s|%05c", "abc", 'a')},
      {"k|  \xe9|!|   %|1", Ours("%k|%3l\xe9|%!|%4%|%d", 1)},
      {"a|A|0.1|nan|+NAN", Ours("%a|%A|%Lg|%f|%+E", 1.0, 1.0, 0.1L, -NAN, -NAN)},
      {" 7 |3  |-3|1", Ours("%3 -d|%h3-d|%.1.0hhd|%d%-05.3l", 7, 3, -3, 1)},
      {"1|2|-2", Ours("%.0f|%.0f|%.0f", 0.5, 1.5, -1.5)},
      // Without a position: the next in turn, also before the first `$` and after a `*` with one.
      {"a|c|4", Ours("%s|%3$s|%d", "a", "b", "c", 4)},
      {"a|   5|4", Ours("%s|%*3$d|%d", "a", 5, 4)},
      // Positions that no conversion names, one that is none, and more than the tables have first.
      {"3 1", Ours("%3$s %1$s", "1", 2, "3")},
      {"000$", Ours("%*0$", 4)},
      {"12 k 1.5 9 b",
       Ours("%12$d %11$s %10$g %9$d %2$s", 1, "b", 3, 4, 5, 6, 7, 8, 9, 1.5, "k", 12)},
  };
  for (const auto &[expected, actual] : rows) EXPECT_EQ(expected, actual);
  int64_t cells[] = {-1, -1, -1, -1};  // of which no more is written than the modifier says
  EXPECT_EQ("abc", Ours("%hhna%hnb%nc%lln", &cells[0], &cells[1], &cells[2], &cells[3]));
  const int64_t counts[] = {~int64_t{0xFF}, ~int64_t{0xFFFF} + 1, ~int64_t{0xFFFFFFFF} + 2, 3};
  EXPECT_TRUE(std::equal(std::begin(cells), std::end(cells), counts));
}

TEST(Format, WideCharactersDependOnTheLocale) {
  char buffer[] = "########";
  EXPECT_TRUE(OursInto(buffer, sizeof buffer, "ab%lccd", 0x20ac) == -1 && errno == EILSEQ);
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

string Core(const char *grouping, const char *format, ...) {
  va_list args;
  va_start(args, format);
  char *text = nullptr;
  const int length = bsd_vsnprintf_core(&text, grouping, ',', "::", 0, format, args);
  va_end(args);
  return PeerTake(text, length);
}

TEST(Format, NumeralsOfTheCaller) {
  EXPECT_EQ("12,34,567", Core("\3\2", "%'d", 1234567));
  EXPECT_EQ("12345,67", Core("\2\177", "%'d", 1234567));
  EXPECT_EQ("1234567", Core(nullptr, "%'d", 1234567));
  EXPECT_EQ("12d687|+000001,234,567|1,234,567   |",
            Core("\3", "%'x|%'+015d|%'-12u|", 1234567, 1234567, 1234567));
  EXPECT_EQ("-9,223,372,036,854,775,808|0|", Core("\3", "%'lld|%'d|%'.0d", INT64_MIN, 0, 0));
  EXPECT_EQ("1::5 2:: 3 1::e+00", Core(nullptr, "%g %#.0f %.0f %#.0e", 1.5, 2.0, 3.0, 1.0));
}

// Only a separator of one ASCII character groups digits; the point may be anything.
TEST(Format, NumeralsOfTheLocale) {
  const char *const rows[][4] = {{"UTF-8", "<U066B>", "<U202F>", "12345678"},
                                 {"ISO-8859-1", "<U00B7>", "<U00A0>", "12345678"},
                                 {"ANSI_X3.4-1968", ",", ".", "1.23.45.678"}};
  const ScratchDir dir;
  setenv("LOCPATH", dir.Path().c_str(), 1);
  for (const auto &[charmap, point, separator, grouped] : rows) {
    const string source = string("LC_NUMERIC\ndecimal_point \"") + point + "\"\nthousands_sep \"" +
                          separator + "\"\ngrouping 3;2\nEND LC_NUMERIC\n";
    const string name(1, *charmap);
    Process({{"/usr/bin/localedef", "-c", "-i", dir.Write("source", source), "-f", charmap,
              dir.Path(name)}})
        .Wait();  // it warns of the categories that are not there
    ASSERT_NE(nullptr, setlocale(LC_NUMERIC, name.c_str()));
    Agree("%f|%g|%.3e|%.30f|%#.0e", 1.5, 1.25, 1e100 / 3, 0.1, 1.0);
    EXPECT_EQ(grouped, Ours("%'d", 12345678));
    char posix[16];
    Str_SprintfPosixLocale(posix, sizeof posix, string("%'d|%g").c_str(), 1234567, 1.5);
    EXPECT_STREQ("1234567|1.5", posix);
    setlocale(LC_NUMERIC, "C");
  }
}

TEST(Format, WhatCannotBePrintedFails) {
  char buffer[8];
  EXPECT_EQ(INT_MAX, OursInto(buffer, sizeof buffer, "%.*f", INT_MAX - 2, 1.0));
  EXPECT_EQ(INT_MAX, OursInto(buffer, sizeof buffer, "%*d", INT_MIN, 1));
  EXPECT_TRUE(OursInto(buffer, sizeof buffer, "%1$d%4097$d", 1) == -1 && errno == EINVAL);
  for (const char *format :
       {"%2147483647d.", ".%-2147483648d%1$d", "%.2147483647f", "%+.2147483647d"}) {
    EXPECT_EQ(-1, OursInto(buffer, sizeof buffer, format, 1.0, 1.0)) << format;
    EXPECT_TRUE(errno == EOVERFLOW && strnlen(buffer, sizeof buffer) < sizeof buffer) << format;
  }
  const FormatValue one[1] = {};
  for (const char *format : {"%2$d", "%d%d", "%*d"}) {
    char *text = nullptr;
    EXPECT_EQ(-1, bsd_vsnprintf_values(&text, 0, format, one));
    EXPECT_EQ(EINVAL, errno) << "an argument that is not there";
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
    if (RunInChild(print).signal == SIGABRT && ++aborts > 0) continue;
    const string text = print();
    fired = fault.Fired();
    EXPECT_EQ(fired, text == kPeerFailed) << nth;
    EXPECT_TRUE(!fired || errno == ENOMEM);
  }
  EXPECT_EQ(1, aborts);
  EXPECT_GT(nth, 4);
  for (const size_t length : {63U, 64U}) {
    const AllocFault second(2);  // the first block holds 64 bytes
    EXPECT_EQ(length == 64, Ours("%s", string(length, 'a').c_str()) == kPeerFailed);
  }
}

// ---- bounded buffers -------------------------------------------------------------------------

TEST(Str, CutsBetweenCharactersAtEverySize) {
  const string text = "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z\xf0\x9f\x98\x80";
  const size_t kept[] = {0, 0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10, 11, 11, 11, 11, 15, 15};
  for (size_t size = 0; size < std::size(kept); ++size) {
    string buffer(size + 1, '#');
    EXPECT_EQ(text.size() < size ? static_cast<int>(text.size()) : -1,
              Str_Snprintf(buffer.data(), size, "%s", text.c_str()));
    EXPECT_EQ(size == 0 ? "#" : text.substr(0, kept[size]), buffer.c_str()) << size;
    EXPECT_EQ('#', buffer[size]);
  }
  // Malformed text is cut at its last lead byte.
  const char *const rows[][2] = {
      {"abcd\x80xx", "abcd\x80"},                          // ASCII is always whole
      {"\x80\x80\x80\x80\x80\x80", ""},                    // no lead byte at all
      {"ab\xc3\xa9\xa9xx", "ab"},                          // too long for its lead
      {"abcd\xffxx", "abcd"},                              // no lead byte has eight bits
      {"\xf8\x80\x80\x80\x80xx", "\xf8\x80\x80\x80\x80"},  // its own length says five
  };
  for (const auto &[malformed, expected] : rows) {
    char buffer[6];
    EXPECT_EQ(-1, Str_Snprintf(buffer, sizeof buffer, "%s", malformed));
    EXPECT_STREQ(expected, buffer);
  }
}

TEST(Str, WhatDoesNotFitIsFatal) {
  static char buffer[8];
  const std::pair<const char *, std::function<void()>> rows[] = {
      {"214", [] { Str_Sprintf(buffer, 3, "%d", 123); }},
      {"177", [] { Str_SprintfPosixLocale(buffer, 3, "%d", 123); }},
      {"284", [] { Str_Strcpy(buffer, "abc", 3); }},
      {"322", [] { Str_Strncpy(buffer, 3, "abcd", 3); }},
      {"444", [] { Str_Strcat(strcpy(buffer, "ab"), "cd", 4); }},
      {"498", [] { Str_Strncat(strcpy(buffer, "ab"), 4, "cde", 2); }},
  };
  for (const auto &[line, body] : rows) {
    EXPECT_EQ(string("Panic: lib/string/str:") + line + " Buffer too small\n", FatalText(body));
  }
  EXPECT_EQ("Panic: VERIFY lib/string/str:657\n",
            FatalText([] { free(Str_SafeAsprintf(nullptr, "%lc", 0x20ac)); }));
}

TEST(Str, BoundedCopiesAndSearches) {
  char buffer[8];
  EXPECT_STREQ("@AZ[", Str_Strcpy(buffer, "@AZ[", 5));
  EXPECT_STREQ("@az[", Str_ToLower(buffer));
  EXPECT_STREQ("@AZ[", Str_ToUpper(buffer));
  EXPECT_STREQ("ab", Str_Strncpy(buffer, 3, "abcd", 2));
  EXPECT_STREQ("abcd", Str_Strcat(strcpy(buffer, "ab"), "cd", 5));
  // Fits by the bytes asked for, or by the bytes that there are.
  EXPECT_STREQ("abc", Str_Strncat(strcpy(buffer, "ab"), 4, "cdefgh", 1));
  EXPECT_STREQ("abc", Str_Strncat(strcpy(buffer, "ab"), 4, "c", 100));
  const char unterminated[] = {'a', 'b', 'a', 'b', 'c'};
  EXPECT_EQ(unterminated + 2, Str_Strnstr(unterminated, "abc", 5));
  EXPECT_EQ(nullptr, Str_Strnstr(unterminated, "abc", 4));
}

}  // namespace
