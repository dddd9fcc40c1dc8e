// unicode_test.cpp -- strings by code points against a straightforward model, and the ways from and
// to other encodings without ICU in the code sets.

#include "unicode.h"

#include <gtest/gtest.h>
#include <unicode/uchar.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "codeset.h"
#include "heap.h"
#include "lib/unicode/unicodeCaseFold.h"
#include "str.h"
#include "tests/support/capture.h"

namespace {

using std::string_literals::operator""s;

std::string Owned(char *string) {
  const HeapStr owner(string);
  return string == nullptr ? "(null)" : string;
}

// ---- the model: an array of code points ------------------------------------------------------

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

std::u16string Units(const Model &text, bool fold) {
  std::u16string units;
  for (char32_t c : text) {
    if (fold) c = IcuFold(c);
    if (c >= 0x10000) units += static_cast<char16_t>(0xD7C0 + (c >> 10));
    units += static_cast<char16_t>(c >= 0x10000 ? 0xDC00 + (c & 0x3FF) : c);
  }
  return units;
}

int Compare(const Model &a, const Model &b, bool fold) {
  const int order = Units(a, fold).compare(Units(b, fold));
  return (order > 0) - (order < 0);
}

// Few different characters, so that they meet: case pairs, also of Deseret beyond U+FFFF and of
// letters that change their length in UTF-8, a combining mark, both sides of the surrogates.
class RandomTexts {
  static constexpr char32_t kCharacters[] = {
      U'a',   U'A', U'b',   0xE9,   0xC9,   0x301,   0x3C3,   0x3C2,   0x1E9E,  0xDF,
      0x212A, U'k', 0xD7FF, 0xE000, 0xFFFD, 0x10400, 0x10428, 0x1F600, 0x10FFFF};
  std::mt19937 random_{3};

 public:
  Model Text(size_t limit) {
    Model text(random_() % limit, U' ');
    const size_t sorts = 2 + random_() % (std::size(kCharacters) - 1);
    for (char32_t &c : text) c = kCharacters[random_() % sorts];
    return text;
  }
  // The same text in other cases.
  Model Recased(Model text) {
    for (char32_t &c : text) {
      const char32_t other = kCharacters[random_() % std::size(kCharacters)];
      if (IcuFold(other) == IcuFold(c)) c = other;
    }
    return text;
  }
  // From a little below 0 to a little above the limit.
  UnicodeIndex Index(size_t limit) {
    return static_cast<UnicodeIndex>(random_() % (limit + 3)) - 2;
  }
};

TEST(UnicodeRanges, BehaveLikeArraysOfCodePoints) {
  RandomTexts random;
  for (int round = 0; round < 50000; round++) {
    const Model a = random.Text(12);
    const Model b = round % 2 == 0 ? random.Text(4)
                                   : random.Recased(Range(a, random.Index(12), random.Index(5)));
    const std::string s = ToUtf8(a), t = ToUtf8(b);
    const UnicodeIndex at = random.Index(12), length = random.Index(12);
    const UnicodeIndex from = random.Index(4), count = random.Index(4);
    SCOPED_TRACE(testing::Message()
                 << s << ' ' << at << ' ' << length << ", " << t << ' ' << from << ' ' << count);
    const Model range = Range(a, at, length), needle = Range(b, from, count);
    const auto base = std::clamp<UnicodeIndex>(at, 0, std::ssize(a));
    const auto index = [base](size_t found) {
      return found == Model::npos ? -1 : base + static_cast<UnicodeIndex>(found);
    };
    const auto call = [&](auto procedure, auto... more) {
      return procedure(s.c_str(), at, length, t.c_str(), from, count, more...);
    };
    ASSERT_EQ(std::ssize(a), Unicode_LengthInCodePoints(s.c_str()));
    ASSERT_EQ(ToUtf8(range), Owned(Unicode_Substr(s.c_str(), at, length)));
    ASSERT_EQ(ToUtf8(Model(a).replace(static_cast<size_t>(base), range.size(), needle)),
              Owned(call(Unicode_ReplaceRange)));
    ASSERT_EQ(index(range.find(needle)), call(Unicode_FindSubstrInRange));
    ASSERT_EQ(needle.empty() ? base : index(range.rfind(needle)),
              call(Unicode_FindLastSubstrInRange));
    ASSERT_EQ(Compare(range, needle, false), call(Unicode_CompareRange, false));
    ASSERT_EQ(Compare(range, needle, true), call(Unicode_CompareRange, true));
  }
}

TEST(CaseFolding, IsIcusForEveryCodePoint) {
  // Characters that are newer than the table fold to themselves here.
  UVersionInfo table;
  u_versionFromString(table, "15.0");
  std::vector<uint32_t> wrong;
  for (UChar32 c = 0; c <= 0x110000; c++) {
    UVersionInfo age;
    u_charAge(c, age);
    if (std::lexicographical_compare(table, table + 2, age, age + 2)) continue;
    const auto codePoint = static_cast<uint32_t>(c);
    if (UnicodeSimpleCaseFold(codePoint) != IcuFold(codePoint)) wrong.push_back(codePoint);
  }
  EXPECT_EQ(std::vector<uint32_t>{}, wrong);
}

// ---- from and to other encodings -------------------------------------------------------------

TEST(UnicodeAlloc, ReadsToTheTerminatorOfTheEncoding) {
  using enum StringEncoding;
  const std::string utf16 = "xa\0\0\1z\0\0\0z\0"s;  // unaligned, and U+0100 has a zero byte
  EXPECT_EQ("a\xC4\x80z", Owned(Unicode_Alloc(utf16.data() + 1, Utf16Le)));
  EXPECT_EQ("a\xEF\xBF\xBD", Owned(Unicode_AllocWithLength("a\x80"
                                                           "b",
                                                           2, UsAscii)));
  EXPECT_EQ("(null)", Owned(Unicode_Alloc(nullptr, Utf8)));
  EXPECT_EQ("a-\xC3\xA9", Owned(Unicode_Join("a", "-", "", "\xC3\xA9", nullptr)));
  EXPECT_EQ("\\x00\\x1F ~\\x5C\\x7F\\xC3\\xA9",
            Owned(Unicode_EscapeBuffer("\0\x1F ~\\\x7F\xC3\xA9", 8, Utf8)));
  EXPECT_EQ("a\\x00", Owned(Unicode_EscapeBuffer("a\0\0\0", -1, Utf16Le)));
}

TEST(UnicodeGetAllocBytes, ConvertsOrGivesNull) {
  using enum StringEncoding;
  const struct {
    const char *in;
    StringEncoding encoding;
    ptrdiff_t length;
    std::string out;  // "(null)" for none
  } rows[] = {
      {"a\xC3\xA9", Current, 2, "a\xC3"},  // copied, not checked
      {"ab\xC3\xA9", UsAscii, 2, "ab"},
      {"ab\xC3\xA9", UsAscii, -1, "(null)"},
      {nullptr, Utf8, -1, "(null)"},
  };
  for (const auto &row : rows) {
    size_t length = 0;
    const HeapStr bytes(Unicode_GetAllocBytesWithLength(row.in, row.encoding, row.length, &length));
    EXPECT_EQ(row.out, bytes == nullptr ? "(null)" : std::string(bytes.get(), length));
  }
  char a[] = "a", e[] = "\xC3\xA9";
  char *const strings[] = {a, e, nullptr};
  const HeapArray<char *> list(Unicode_GetAllocList(strings, -1, Utf8));
  EXPECT_EQ("a\xC3\xA9", Owned(list[0]) + Owned(list[1]));
  EXPECT_EQ(nullptr, list[2]);
  // What was converted until then is freed: AddressSanitizer watches.
  EXPECT_EQ(nullptr, Unicode_GetAllocList(strings, 2, UsAscii));
}

TEST(Unicode, InvalidTextsAreFatal) {
  static const char kBad[] = "a\xC3";
  const HeapStr text(Str_Asprintf(nullptr, "Panic: %s: invalid UTF8 string @ %p\n",
                                  "Unicode_FindSubstrInRange", static_cast<const void *>(kBad)));
  EXPECT_EQ(text.get(),
            FatalText([] { static_cast<void>(Unicode_FindSubstrInRange("", 0, 0, kBad, 0, 0)); }));
  EXPECT_EQ("Panic: NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:741\n", FatalText([] {
              static_cast<void>(Unicode_GetAllocBytes(kBad, StringEncoding::Utf16Le));
            }));
  EXPECT_EQ(
      "Panic: Unicode_AllocWithLength: Couldn't convert invalid buffer [\\x00\\xD8] from UTF-16LE "
      "to Unicode.\n",
      FatalText([] {
        static_cast<void>(Unicode_AllocWithLength("\0\xD8", 2, StringEncoding::Utf16Le));
      }));
}

}  // namespace
