// codeset_test.cpp -- UTF-8 against a second opinion, and the library's own converters.
//
// Linked with --wrap=malloc,--wrap=realloc for AllocFault.  What each pair of encodings makes of
// which text: icu_test.cpp, fuzz/codeset_fuzz.cpp.

#include "codeset.h"

#include <gtest/gtest.h>
#include <unicode/ustring.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <utility>

#include "heap.h"
#include "tests/support/allocFault.h"
#include "tests/support/capture.h"
#include "tests/support/rounds.h"
#include "utf8.h"

namespace {

using std::string_literals::operator""s;

// The second opinion.
bool IsValid(std::string_view text) {
  UErrorCode error = U_ZERO_ERROR;
  u_strFromUTF8(nullptr, 0, nullptr, text.data(), static_cast<int32_t>(text.size()), &error);
  return error != U_INVALID_CHAR_FOUND;
}

// The first character is decoded exactly when its value is written with these bytes.
bool DecodesTheFirst(std::string_view text) {
  uint32_t value = 0;
  const size_t length = CodeSet_GetUtf8(text.data(), text.data() + text.size(), &value);
  if (length == 0) return text.empty() || !IsValid(text);
  char bytes[4];
  return text.substr(0, length) == std::string_view(bytes, Utf8_Encode(value, bytes));
}

// All texts of up to four bytes that are the first or last ones of their kind.
TEST(Utf8, ShortTextsOfAllKindsOfBytesAreTreatedAlike) {
  constexpr std::string_view kBytes =
      "\x41\x7F\x80\x8F\x90\x9F\xA0\xBF\xC1\xC2\xDF\xE0\xE1\xEC\xED\xEE\xEF\xF0\xF1\xF3\xF4\xF5";
  constexpr size_t n = kBytes.size();
  for (size_t i = 0; i < 4 * n * n * n * n; i++) {
    std::string text;
    for (size_t rest = i / 4; text.size() <= i % 4; rest /= n) text += kBytes[rest % n];
    ASSERT_EQ(IsValid(text), CodeSet_IsValidUTF8(text.data(), text.size())) << i;
    ASSERT_TRUE(DecodesTheFirst(text)) << i;
  }
  const std::string_view surrogate = "\xED\xA0\x80";
  uint32_t value;
  EXPECT_EQ(3U, CodeSet_GetUtf8(surrogate.begin(), surrogate.end(), &value))
      << "is decoded all the same";
}

// Long enough for stretches of ASCII and for several lanes of the check, at every alignment.
TEST(Utf8, LongTextsWithOneWrongByteAreTreatedAlike) {
  const std::string_view pieces[] = {"plain text of more than a few words, ", "\xC3\xA9",
                                     "\xE3\x81\x84", "\xF0\x9F\x98\x80", "a"};
  std::mt19937 random(1);
  for (int round = Rounds(4000); round > 0; round--) {
    std::string text;
    const size_t mostly = random() % std::size(pieces);
    while (text.size() < 600) {
      text += pieces[random() % 4 == 0 ? random() % std::size(pieces) : mostly];
    }
    text.erase(0, random() % 8);
    if (round % 4 != 0) text[random() % text.size()] = static_cast<char>(random());
    ASSERT_EQ(IsValid(text), CodeSet_IsValidUTF8(text.data(), text.size())) << round;
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
  EXPECT_TRUE(all == HeapArray<char32_t>(units).get() && IsValid(bytes));
  for (const char32_t bad : {char32_t{0xDFFF}, char32_t{0x110000}}) {
    EXPECT_FALSE(CodeSet_UTF32ToUTF8(std::u32string{U'a', bad}.c_str(), &bytes));
  }
  EXPECT_FALSE(CodeSet_UTF8ToUTF32("a\xED\xA0\x80", &units));
  EXPECT_TRUE(CodeSet_UTF8ToUTF32(nullptr, &units) && units == nullptr);
  EXPECT_TRUE(CodeSet_UTF32ToUTF8(nullptr, &bytes) && bytes == nullptr);
}

// ---- pairs of encodings ----------------------------------------------------------------------

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
    const HeapStr owner(std::exchange(out, nullptr));
    EXPECT_EQ(row.out + std::string(4, '\0'), std::string(owner.get(), length + 4)) << "any unit";
    EXPECT_FALSE(row.convert("\xD8\0\xED", 3, &out, nullptr));
    const AllocFault fault(1);
    EXPECT_FALSE(row.convert(row.in.data(), row.in.size(), &out, &length));
    EXPECT_TRUE(fault.Fired() && out == nullptr && length == row.out.size());
  }
}

TEST(OwnConverters, ValidateWhatTheyCanConvert) {
  EXPECT_FALSE(CodeSet_Validate("\xD8\0\xD8\0", 4, "UTF-16BE"));
  EXPECT_FALSE(CodeSet_Validate("a", 1, "Shift_JIS"));
  EXPECT_TRUE(CodeSet_Validate(nullptr, 0, "no such name"));
  EXPECT_EQ("Panic: VERIFY lib/misc/codeset:1700\n",
            FatalText([] { static_cast<void>(CodeSet_Validate("", size_t{1} << 31, "UTF-8")); }));
}

}  // namespace
