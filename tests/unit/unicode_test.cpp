// unicode_test.cpp -- strings by code points against a straightforward model, and the ways from and
// to other encodings without ICU in the code sets.

#include "lib/public/unicode.h"

#include <unicode/uchar.h>

#include "lib/public/codeset.h"
#include "lib/unicode/unicodeCaseFold.h"
#include "tests/support/allocFault.h"
#include "tests/support/test.h"

namespace {

using std::string_literals::operator""s;

// ---- by code points --------------------------------------------------------------------------

// The model is an array of code points.
using Model = std::u32string;

std::string ToUtf8(const Model &model) {
  char *utf8 = nullptr;
  EXPECT_TRUE(CodeSet_UTF32ToUTF8(model.c_str(), &utf8));
  return Owned(utf8);
}

Model Range(const Model &text, UnicodeIndex start, UnicodeIndex length) {
  const auto begin = std::min(static_cast<size_t>(std::max<UnicodeIndex>(start, 0)), text.size());
  return text.substr(begin, length < 0 ? Model::npos : static_cast<size_t>(length));
}

char32_t IcuFold(char32_t c) {
  return static_cast<char32_t>(u_foldCase(static_cast<UChar32>(c), U_FOLD_CASE_DEFAULT));
}

// What orders by UTF-16 code units: characters beyond U+FFFF stand before U+E000.
Model OrderKeys(Model text, bool fold) {
  for (char32_t &c : text) {
    if (fold) c = IcuFold(c);
    if (c >= 0xE000 && c <= 0xFFFF) c += 0x110000;
  }
  return text;
}

TEST(UnicodeRanges, BehaveLikeArraysOfCodePoints) {
  // Few neighbours of these in each text, so that they meet: case pairs, also of Deseret beyond
  // U+FFFF and of letters that change their length in UTF-8, and both sides of the surrogates.
  constexpr std::u32string_view kCharacters =
      U"aA\u00E9\u00C9\u0301\u03C3\u03C2\u1E9E\u00DF\u212Ak\uD7FF\uE000\U00010400\U00010428"
      U"\U0010FFFF";
  std::mt19937 random(3);
  const auto text = [&](size_t limit) {
    Model model(random() % limit, U' ');
    const size_t first = random(), sorts = 1 + random() % 16;
    for (char32_t &c : model) c = kCharacters[(first + random() % sorts) % 16];
    return model;
  };
  const auto index = [&](int limit) { return static_cast<int>(random() % 16) % (limit + 3) - 2; };
  for (int round = Rounds(50'000); round > 0; round--) {
    const Model a = text(12), b = text(4);
    const std::string s = ToUtf8(a), t = ToUtf8(b);
    const UnicodeIndex at = index(12), length = index(12), from = index(4), count = index(4);
    const Model range = Range(a, at, length), needle = Range(b, from, count);
    const auto base = std::clamp<UnicodeIndex>(at, 0, std::ssize(a));
    const auto found = [base](size_t place) {
      return place == Model::npos ? -1 : base + static_cast<UnicodeIndex>(place);
    };
    const auto call = [&](auto procedure, auto... more) {
      return procedure(s.c_str(), at, length, t.c_str(), from, count, more...);
    };
    ASSERT_EQ(std::ssize(a), Unicode_LengthInCodePoints(s.c_str()));
    ASSERT_EQ(ToUtf8(range), Owned(Unicode_Substr(s.c_str(), at, length)));
    ASSERT_EQ(ToUtf8(Model(a).replace(static_cast<size_t>(base), range.size(), needle)),
              Owned(call(Unicode_ReplaceRange)));
    ASSERT_EQ(found(range.find(needle)), call(Unicode_FindSubstrInRange));
    ASSERT_EQ(needle.empty() ? base : found(range.rfind(needle)),
              call(Unicode_FindLastSubstrInRange));
    for (const bool fold : {false, true}) {
      const auto order = OrderKeys(range, fold) <=> OrderKeys(needle, fold);
      ASSERT_EQ((order > 0) - (order < 0), call(Unicode_CompareRange, fold));
    }
  }
}

TEST(CaseFolding, IsIcusForEveryCodePoint) {
  for (UChar32 c = 0; c <= 0x110000; c++) {
    UVersionInfo age;
    u_charAge(c, age);
    // Characters that are newer than the table, of Unicode 15.0, fold to themselves here.
    if (std::pair(age[0], age[1]) > std::pair<uint8_t, uint8_t>(15, 0)) continue;
    const auto codePoint = static_cast<char32_t>(c);
    ASSERT_EQ(IcuFold(codePoint), UnicodeSimpleCaseFold(codePoint)) << c;
  }
}

// ---- from and to other encodings -------------------------------------------------------------

TEST(Unicode, TextsComeAndGoToTheTerminatorOfTheirEncoding) {
  using enum StringEncoding;
  const std::string utf16 = "xa\0\0\1z\0\0\0z\0"s;  // unaligned, and U+0100 has a zero byte
  const char text[] = "ab\xC3\xA9";
  size_t copied = 0;
  const std::pair<std::string, char *> rows[] = {
      {"a\xC4\x80z", Unicode_Alloc(utf16.data() + 1, Utf16Le)},
      {"ab\xEF\xBF\xBD", Unicode_AllocWithLength(text, 3, UsAscii)},
      {"a-\xC3\xA9", Unicode_Join("a", "-", "", "\xC3\xA9", nullptr)},
      {"\\x00\\x1F ~\\x5C\\x7F\\xC3\\xA9", Unicode_EscapeBuffer("\0\x1F ~\\\x7F\xC3\xA9", 8, Utf8)},
      {"a\\x00", Unicode_EscapeBuffer("a\0\0\0", -1, Utf16Le)},
      {"a\\x00\\x00\\x00b\\x00\\x00\\x00",
       Unicode_EscapeBuffer("a\0\0\0b\0\0\0\0\0\0", -1, Utf32Le)},
      {"ab\xC3", Unicode_GetAllocBytesWithLength(text, Current, 3, &copied)},  // not checked
      {"ab", Unicode_GetAllocBytesWithLength(text, UsAscii, 2, nullptr)},
      {"(null)", Unicode_GetAllocBytes(text, UsAscii)},
  };
  for (const auto &[expected, result] : rows) EXPECT_EQ(expected, Owned(result));
  EXPECT_EQ(3U, copied);

  char a[] = "a", e[] = "\xC3\xA9";
  char *const strings[] = {a, e, nullptr};
  const HeapArray<char *> list(Unicode_GetAllocList(strings, -1, Utf8));
  EXPECT_EQ("a\xC3\xA9(null)", Owned(list[0]) + Owned(list[1]) + Owned(list[2]));
  // What was converted until then is freed: AddressSanitizer watches.
  EXPECT_EQ(nullptr, Unicode_GetAllocList(strings, 2, UsAscii));
}

TEST(Unicode, InvalidTextsAreFatal) {
  static const char kBad[] = "a\xC3";
  const auto find = [] { (void)Unicode_FindSubstrInRange("", 0, 0, kBad, 0, 0); };
  EXPECT_TRUE(
      FatalText(find).starts_with("Panic: Unicode_FindSubstrInRange: invalid UTF8 string @ "));
  EXPECT_EQ("Panic: NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:741\n",
            FatalText([] { (void)Unicode_GetAllocBytes(kBad, StringEncoding::Utf16Le); }));
  const auto convert = [](const std::string &text, int nthFails) {
    return FatalText([&] {
      const AllocFault fault(nthFails);
      (void)Unicode_Alloc(text.c_str(), StringEncoding::Utf8);
    });
  };
  EXPECT_EQ(
      "Panic: Unicode_AllocWithLength: Couldn't convert invalid buffer [a\\x80] from UTF-8 to "
      "Unicode.\n",
      convert("a\x80", 0));
  EXPECT_TRUE(
      convert(std::string(9999, '\x80'), 0).ends_with("\\x80...] from UTF-8 to Unicode.\n"));
  EXPECT_EQ("Panic: Unrecoverable memory allocation failure\n", convert("valid", 1));
}

}  // namespace
