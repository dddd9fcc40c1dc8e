// codeset_test.cpp -- UTF-8 against a second opinion, and the library's own converters.
//
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.  What valid text converts to is tested
// against ICU in icu_test.cpp.

#include "codeset.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

// ---- pairs of encodings ----------------------------------------------------------------------

// What each pair makes of which text: icu_test.cpp, fuzz/codeset_fuzz.cpp.

TEST(OwnConverters, FailWithoutATraceWhenMemoryIsExhausted) {
  char *out = nullptr;
  size_t length = 1;
  // Once, so that the names are remembered: having no memory for that is fatal.
  ASSERT_TRUE(CodeSet_Utf8ToUtf16le("x", 1, &out, nullptr));
  HeapStr(std::exchange(out, nullptr)).reset();
  const AllocFault fault(1);
  EXPECT_FALSE(CodeSet_Utf8ToUtf16le("x", 1, &out, &length));
  EXPECT_TRUE(fault.Fired() && out == nullptr && length == 1);
}

TEST(OwnConverters, ValidateWhatTheyCanConvert) {
  EXPECT_FALSE(CodeSet_Validate("\xD8\0\xD8\0", 4, "UTF-16BE"));
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
  EXPECT_TRUE(IsValid(bytes));
  EXPECT_FALSE(CodeSet_UTF8ToUTF32("a\xED\xA0\x80", &units));
  for (const char32_t bad : {char32_t{0xDFFF}, char32_t{0x110000}}) {
    EXPECT_FALSE(CodeSet_UTF32ToUTF8(std::u32string{U'a', bad}.c_str(), &bytes));
  }
  EXPECT_TRUE(CodeSet_UTF8ToUTF32(nullptr, &units) && units == nullptr);
  EXPECT_TRUE(CodeSet_UTF32ToUTF8(nullptr, &bytes) && bytes == nullptr);
}

}  // namespace
