// codeset_test.cpp -- UTF-8 against a second opinion, and the current encoding.

#include "codeset.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "heap.h"

namespace {

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

TEST(Utf8, AStringEndsAtItsNul) {
  EXPECT_TRUE(CodeSet_IsValidUTF8("\xC3\xA9\0\xFF"));
  EXPECT_FALSE(CodeSet_IsValidUTF8("\xC3\0\xA9"));
}

TEST(CurrentEncoding, CopiesWhatIsValidAndTerminatesItForAnyUnit) {
  using std::string_literals::operator""s;
  for (const auto convert : {CodeSet_Utf8ToCurrent, CodeSet_CurrentToUtf8}) {
    for (const std::string &text : {""s, "a\0\xF4\x8F\xBF\xBF"s, std::string(5000, 'x')}) {
      char *out = nullptr;
      size_t length = 1;
      ASSERT_TRUE(convert(text.empty() ? nullptr : text.data(), text.size(), &out, &length));
      const HeapStr owner(out);
      EXPECT_EQ(text.size(), length);
      EXPECT_EQ(text + std::string(4, '\0'), std::string(out, length + 4));
    }
    char *out = nullptr;
    EXPECT_FALSE(convert("a\xED\xA0\x80", 4, &out, nullptr));
    EXPECT_EQ(nullptr, out);
  }
}

}  // namespace
