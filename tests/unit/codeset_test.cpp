// codeset_test.cpp -- UTF-8 against a second opinion, and the library's own converters.
//
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.  What valid text converts to is tested
// against ICU in icu_test.cpp.

#include "codeset.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "dynbuf.h"
#include "heap.h"
#include "tests/support/allocFault.h"
#include "tests/support/capture.h"

namespace {

using std::string_literals::operator""s;

// The second opinion: the length of the character that the text begins with, by its bits, and its
// value; 0 when there is none.
size_t Decode(std::string_view text, uint32_t *value) {
  static constexpr uint32_t kFirst[] = {0, 0, 1U << 7, 1U << 11, 1U << 16};
  if (text.empty()) return 0;
  const auto ones = static_cast<unsigned>(std::countl_one(static_cast<uint8_t>(text[0])));
  const size_t length = ones == 0 ? 1 : ones;
  if (ones == 1 || ones > 4 || text.size() < length) return 0;
  *value = static_cast<uint8_t>(text[0]) & (0xFFU >> (ones + 1));
  for (const char tail : text.substr(1, length - 1)) {
    if (static_cast<uint8_t>(tail) >> 6 != 2) return 0;
    *value = *value << 6 | (static_cast<uint8_t>(tail) & 0x3F);
  }
  return *value < kFirst[length] || static_cast<uint8_t>(text[0]) > 0xF4 ? 0 : length;
}

bool IsValid(std::string_view text) {
  for (uint32_t value; !text.empty();) {
    const size_t length = Decode(text, &value);
    if (length == 0 || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return false;
    text.remove_prefix(length);
  }
  return true;
}

bool IsTreatedAlike(std::string_view text) {
  uint32_t expected = 0, value = 0;
  const char *const end = text.data() + text.size();
  const size_t length = Decode(text, &expected);
  return CodeSet_IsValidUTF8(text.data(), text.size()) == IsValid(text) &&
         CodeSet_GetUtf8(text.data(), end, &value) == length && (length == 0 || value == expected);
}

// No assertion in the loops: with sanitizers they would take minutes.
TEST(Utf8, AllTextsUpToThreeBytesAndManyOfFourAreTreatedAlike) {
  std::vector<uint32_t> wrong;
  for (size_t length = 0; length <= 3; length++) {
    // Three bytes that begin with ASCII are two more bytes; one such lead is enough.
    for (uint32_t i = length < 3 ? 0 : 0x7F0000; i < 1U << 8 * length; i++) {
      const char bytes[] = {static_cast<char>(i >> 16), static_cast<char>(i >> 8),
                            static_cast<char>(i)};
      if (!IsTreatedAlike({bytes + 3 - length, length})) wrong.push_back(i);
    }
  }
  constexpr std::string_view kEdges = "\x41\x7F\x80\x8F\x90\x9F\xA0\xBF\xC0\xC2";
  for (uint32_t i = 0xE000; i < 0x10000; i++) {
    for (const char third : kEdges) {
      for (const char fourth : kEdges) {
        const char bytes[] = {static_cast<char>(i >> 8), static_cast<char>(i), third, fourth};
        if (!IsTreatedAlike({bytes, 4})) wrong.push_back(i);
      }
    }
  }
  EXPECT_EQ(std::vector<uint32_t>{}, wrong);
}

// Long enough for stretches of ASCII and for several lanes of the check, at every alignment.
TEST(Utf8, LongTextsWithOneWrongByteAreTreatedAlike) {
  const std::string_view pieces[] = {"plain text of more than a few words, ", "\xC3\xA9",
                                     "\xE3\x81\x84", "\xF0\x9F\x98\x80", "a"};
  std::mt19937 random(1);
  int valid = 0;
  for (int round = 0; round < 4000; round++) {
    std::string text;
    const size_t mostly = random() % std::size(pieces);
    while (text.size() < 600) {
      text += pieces[random() % 4 == 0 ? random() % std::size(pieces) : mostly];
    }
    text.erase(0, random() % 8);
    if (round % 4 != 0) text[random() % text.size()] = static_cast<char>(random());
    ASSERT_EQ(IsValid(text), CodeSet_IsValidUTF8(text.data(), text.size())) << round;
    valid += IsValid(text) ? 1 : 0;
  }
  EXPECT_LT(200, valid);
}

TEST(Utf8, AStringEndsAtItsNul) {
  EXPECT_TRUE(CodeSet_IsValidUTF8("\xC3\xA9\0\xFF"));
  EXPECT_FALSE(CodeSet_IsValidUTF8("\xC3\0\xA9"));
}

// ---- pairs of encodings ----------------------------------------------------------------------

struct Conversion {
  const char *from, *to;
  int flags;
  std::string in;
  std::optional<std::string> out;  // none when it fails
};

// What each pair makes of valid text: icu_test.cpp.  Any bytes: fuzz/codeset_fuzz.cpp.
TEST(OwnConverters, DoWhatTheFlagsLetThem) {
  constexpr std::nullopt_t kFails = std::nullopt;
  const Conversion rows[] = {
      {"utf8", "utf_16-le", 2, "12345678\xC3\xBF", "1\0002\0003\0004\0005\0006\0007\0008\0\xFF\0"s},
      {"UTF-8", "UTF-16LE", 1, "12345678\xED\xA0\x80", kFails},
      {"UTF-8", "UTF-16LE", 0, "\xC3\xA9\xE3\x81", kFails},
      {"UTF-8", "UTF-8", 1, "ok\xFF", kFails},
      // Half units and half pairs.
      {"UTF-16BE", "UTF-8", 0, "\0a\0\0\0\xE9\xD8\x3D\xDE\0"s, "a\0\xC3\xA9\xF0\x9F\x98\x80"s},
      {"UTF-16LE", "UTF-8", 1, "a\0b"s, kFails},
      {"UTF-16LE", "UTF-8", 1, "\x3D\xD8"s, kFails},
      {"UTF-16LE", "UTF-8", 2, "\x3D\xD8\x3D\xD8"s, kFails},
      {"UTF-16LE", "UTF-16LE", 1, "\0\xDE\x3D\xD8"s, kFails},
      {"UTF-16BE", "UTF-16BE", 1, "\xD8\x3D\xDE"s, kFails},
      // A whole sequence counts once, even a surrogate's; what is none, byte by byte.
      {"UTF-8", "US-ASCII", 0, "caf\xC3\xA9", kFails},
      {"UTF-8", "US-ASCII", 1, "\xC3\xA9-\xED\xA0\x80-\xE3\x81", "\x1A-\x1A-\x1A\x1A"},
      {"UTF-8", "US-ASCII", 2, "\xC3\xA9-\xED\xA0\x80-\xE3\x81", "--"},
      {"US-ASCII", "UTF-8", 0, "a\0\x80"s, kFails},
      {"US-ASCII", "UTF-8", 1, "a\x80\xFF", "a\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"US-ASCII", "UTF-8", 2, "a\x80z", "az"},
      {"US-ASCII", "US-ASCII", 1, "a\x80", kFails},
      {"LATIN1", "UTF-8", 0, "A\x7F\x80\xFF", "A\x7F\xC2\x80\xC3\xBF"},
      // Pairs that nobody converts.
      {"ISO-8859-1", "ISO-8859-1", 0, "a", kFails},
      {"UTF-8", "UTF-16BE", 0, "a", kFails},
      {"UTF-16", "UTF-8", 0, "a\0"s, kFails},
      {"no such name", "no such name", 0, "a", kFails},
      {"no such name", "UTF-8", 0, "", ""},
  };
  for (const Conversion &row : rows) {
    SCOPED_TRACE(testing::Message() << row.from << " to " << row.to << " of " << row.in);
    ScopedDynBuf out;
    ASSERT_TRUE(DynBuf_Append(&out, "before", 6));
    EXPECT_EQ(row.out.has_value(),
              CodeSet_GenericToGenericDb(row.from, row.in.data(), row.in.size(), row.to, row.flags,
                                         &out));
    EXPECT_EQ("before" + row.out.value_or(""), std::string(out.data, out.size));
  }
}

TEST(OwnConverters, FailWithoutATraceWhenMemoryIsExhausted) {
  const std::string text(300, 'x');
  char *out = nullptr;
  size_t length = 1;
  // Once, so that the names are remembered: having no memory for that is fatal.
  ASSERT_TRUE(CodeSet_Utf8ToUtf16le(text.data(), text.size(), &out, nullptr));
  HeapStr(std::exchange(out, nullptr)).reset();
  for (int nth = 1; nth <= 2; nth++) {
    const AllocFault fault(nth);
    EXPECT_FALSE(CodeSet_Utf8ToUtf16le(text.data(), text.size(), &out, &length));
    EXPECT_TRUE(fault.Fired());
    EXPECT_EQ(nullptr, out);
    EXPECT_EQ(1U, length);
  }
}

TEST(OwnConverters, ValidateWhatTheyCanConvert) {
  EXPECT_FALSE(CodeSet_Validate("\xD8\0\xD8\0", 4, "UTF-16BE"));
  EXPECT_TRUE(CodeSet_Validate("a\x80", 2, "ISO-8859-1"));
  EXPECT_FALSE(CodeSet_Validate("a", 1, "Shift_JIS"));
  EXPECT_TRUE(CodeSet_Validate(nullptr, 0, "no such name"));
  EXPECT_EQ("Panic: VERIFY lib/misc/codeset:1700\n",
            FatalText([] { static_cast<void>(CodeSet_Validate("", size_t{1} << 31, "UTF-8")); }));
}

TEST(FixedPairs, ConvertFromAndToWhatTheirNamesSay) {
  const std::string utf8 = "a\0\xC3\xA9"s, little = "a\0\0\0\xE9\0"s, big = "\0a\0\0\0\xE9"s;
  const struct {
    decltype(&CodeSet_Utf8ToCurrent) convert;
    std::string in, out;
  } rows[] = {
      {CodeSet_Utf16leToUtf8, little, utf8},    {CodeSet_Utf16beToUtf8, big, utf8},
      {CodeSet_Utf8ToUtf16le, utf8, little},    {CodeSet_Utf16leToCurrent, little, utf8},
      {CodeSet_CurrentToUtf16le, utf8, little}, {CodeSet_CurrentToUtf8, utf8, utf8},
      {CodeSet_Utf8ToCurrent, utf8, utf8},      {CodeSet_Utf8ToCurrent, "", ""},
  };
  for (const auto &row : rows) {
    char *out = nullptr;
    size_t length = 1;
    ASSERT_TRUE(row.convert(row.in.data(), row.in.size(), &out, &length));
    const HeapStr owner(out);
    EXPECT_EQ(row.out.size(), length);
    EXPECT_EQ(row.out + std::string(4, '\0'), std::string(out, length + 4)) << "for any unit";
    out = nullptr;
    EXPECT_FALSE(row.convert("\xD8\0\xED", 3, &out, nullptr));
    EXPECT_EQ(nullptr, out);
  }
}

TEST(Utf32, EveryCharacterGoesThereAndBack) {
  std::u32string all;
  for (char32_t c = 1; c <= 0x10FFFF; c++) {
    if (c < 0xD800 || c > 0xDFFF) all += c;
  }
  char32_t *units = nullptr;
  char *bytes = nullptr;
  ASSERT_TRUE(CodeSet_UTF32ToUTF8(all.c_str(), &bytes));
  const HeapStr bytesOwner(bytes);
  ASSERT_TRUE(CodeSet_UTF8ToUTF32(bytes, &units));
  const HeapArray<char32_t> unitsOwner(units);
  EXPECT_TRUE(all == units);
  std::string_view text = bytes;
  const auto right = std::ranges::count_if(all, [&](char32_t c) {
    uint32_t value = 0;
    text.remove_prefix(Decode(text, &value));
    return c == value;
  });
  EXPECT_EQ(std::ssize(all), right);
  EXPECT_EQ("", text);
  for (const char *const bad : {"\xED\xA0\x80", "\xF4\x90\x80\x80", "a\xC3"}) {
    EXPECT_FALSE(CodeSet_UTF8ToUTF32(bad, &units));
  }
  for (const char32_t bad : {char32_t{0xD800}, char32_t{0xDFFF}, char32_t{0x110000}}) {
    const char32_t string[] = {U'a', bad, 0};
    EXPECT_FALSE(CodeSet_UTF32ToUTF8(string, &bytes));
  }

  EXPECT_TRUE(CodeSet_UTF8ToUTF32(nullptr, &units) && units == nullptr);
  EXPECT_TRUE(CodeSet_UTF32ToUTF8(nullptr, &bytes) && bytes == nullptr);
}

}  // namespace
