// unicode_test.cpp -- strings by code points against a straightforward model, and the ways from and
// to other encodings without ICU in the code sets.

#include "lib/public/unicode.h"

#include <unicode/uchar.h>

#include "lib/public/codeset.h"
#include "lib/unicode/unicodeCaseFold.h"
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
  constexpr char32_t kCharacters[] = {U'a',   U'A',    0xE9,    0xC9,    0x301, 0x3C3,
                                      0x3C2,  0x1E9E,  0xDF,    0x212A,  U'k',  0xD7FF,
                                      0xE000, 0x10400, 0x10428, 0x10FFFF};
  std::mt19937 random(3);
  const auto text = [&](size_t limit) {
    Model model(random() % limit, U' ');
    const size_t first = random(), sorts = 1 + random() % 16;
    for (char32_t &c : model) c = kCharacters[(first + random() % sorts) % 16];
    return model;
  };
  const auto index = [&](size_t limit) {
    return static_cast<UnicodeIndex>(random() % (limit + 3)) - 2;
  };
  for (int round = Rounds(50'000); round > 0; round--) {
    const Model a = text(12), b = text(4);
    const std::string s = ToUtf8(a), t = ToUtf8(b);
    const UnicodeIndex at = index(12), length = index(12), from = index(4), count = index(4);
    SCOPED_TRACE(testing::Message()
                 << s << ' ' << at << ' ' << length << ", " << t << ' ' << from << ' ' << count);
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
    if (age[0] > 15 || (age[0] == 15 && age[1] > 0)) continue;
    const auto codePoint = static_cast<char32_t>(c);
    ASSERT_EQ(IcuFold(codePoint), UnicodeSimpleCaseFold(codePoint)) << c;
  }
}

// ---- from and to other encodings -------------------------------------------------------------

TEST(Unicode, TextsComeAndGoToTheTerminatorOfTheirEncoding) {
  using enum StringEncoding;
  const std::string utf16 = "xa\0\0\1z\0\0\0z\0"s;  // unaligned, and U+0100 has a zero byte
  const char text[] = "ab\xC3\xA9";
  const std::pair<std::string, char *> rows[] = {
      {"a\xC4\x80z", Unicode_Alloc(utf16.data() + 1, Utf16Le)},
      {"ab\xEF\xBF\xBD", Unicode_AllocWithLength(text, 3, UsAscii)},
      {"a-\xC3\xA9", Unicode_Join("a", "-", "", "\xC3\xA9", nullptr)},
      {"\\x00\\x1F ~\\x5C\\x7F\\xC3\\xA9", Unicode_EscapeBuffer("\0\x1F ~\\\x7F\xC3\xA9", 8, Utf8)},
      {"a\\x00", Unicode_EscapeBuffer("a\0\0\0", -1, Utf16Le)},
      {"ab\xC3",
       Unicode_GetAllocBytesWithLength(text, Current, 3, nullptr)},  // copied, not checked
      {"ab", Unicode_GetAllocBytesWithLength(text, UsAscii, 2, nullptr)},
      {"(null)", Unicode_GetAllocBytes(text, UsAscii)},
  };
  for (const auto &[expected, result] : rows) EXPECT_EQ(expected, Owned(result));

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
  EXPECT_EQ(
      "Panic: Unicode_AllocWithLength: Couldn't convert invalid buffer [\\x00\\xD8] from UTF-16LE "
      "to Unicode.\n",
      FatalText([] { (void)Unicode_AllocWithLength("\0\xD8", 2, StringEncoding::Utf16Le); }));
}

}  // namespace
