// codeset_test.cpp -- UTF-8 against a second opinion, and the current encoding.

#include "codeset.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "heap.h"

namespace {

constexpr uint32_t kLastCodePoint = 0x10FFFF;

bool IsSurrogate(uint32_t c) {
  return c >= 0xD800 && c <= 0xDFFF;
}

size_t ShortestLength(uint32_t c) {
  return c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
}

// `c` in the form that has `length` bytes, over-long or not.
std::string Encode(uint32_t c, size_t length) {
  std::string bytes(length, '\0');
  for (size_t i = length; --i > 0; c >>= 6) bytes[i] = static_cast<char>(0x80 | (c & 0x3F));
  const uint32_t mark = length == 1 ? 0 : 0xF00U >> length & 0xFF;
  bytes[0] = static_cast<char>(mark | c);
  return bytes;
}

// The second opinion knows no rule of UTF-8: it has the bytes of every character that exists, and a
// text is valid when it can be made of them.
class Characters {
  std::array<std::vector<uint32_t>, 5> byLength_;  // sorted; the first byte is the highest

 public:
  Characters() {
    for (uint32_t c = 0; c <= kLastCodePoint; c++) {
      if (IsSurrogate(c)) continue;
      const std::string bytes = Encode(c, ShortestLength(c));
      byLength_[bytes.size()].push_back(Key(bytes));
    }
  }

  static uint32_t Key(std::string_view bytes) {
    uint32_t key = 0;
    for (const char byte : bytes) key = key << 8 | static_cast<uint8_t>(byte);
    return key;
  }

  bool CanMake(std::string_view text) const {
    if (text.empty()) return true;
    for (size_t n = 1; n <= std::min<size_t>(4, text.size()); n++) {
      if (std::ranges::binary_search(byLength_[n], Key(text.substr(0, n)))) {
        return CanMake(text.substr(n));  // no character begins with another one
      }
    }
    return false;
  }

  // Marks in `table` all texts of `length` bytes, at most 3, that begin with `prefix`.
  void MarkTexts(size_t length, uint32_t prefix, std::vector<char> *table) const {
    if (length == 0) (*table)[prefix] = true;
    for (size_t n = 1; n <= length; n++) {
      for (const uint32_t key : byLength_[n]) MarkTexts(length - n, prefix << 8 * n | key, table);
    }
  }
};

const Characters &AllCharacters() {
  static const Characters characters;
  return characters;
}

TEST(Utf8, ValidityOfAllTextsUpToThreeBytes) {
  for (const size_t length : {0UL, 1UL, 2UL, 3UL}) {
    std::vector<char> table(1UL << 8 * length);
    AllCharacters().MarkTexts(length, 0, &table);
    // No assertion in the loop: with sanitizers it would take minutes.
    const char *const valid = table.data();
    const size_t count = table.size();
    std::vector<size_t> wrong;
    for (size_t i = 0; i < count; i++) {
      const char text[] = {static_cast<char>(i >> 16), static_cast<char>(i >> 8),
                           static_cast<char>(i)};
      if (CodeSet_IsValidUTF8(text + 3 - length, length) != static_cast<bool>(valid[i])) {
        wrong.push_back(i);
      }
    }
    EXPECT_EQ(std::vector<size_t>{}, wrong);
  }
}

void ExpectSameVerdict(const std::string &text) {
  ASSERT_EQ(AllCharacters().CanMake(text), CodeSet_IsValidUTF8(text.data(), text.size()))
      << testing::PrintToString(std::vector<unsigned char>(text.begin(), text.end()));
  // The other form ends at the first NUL.
  ASSERT_EQ(AllCharacters().CanMake(text.c_str()), CodeSet_IsValidUTF8(text.c_str()));
}

TEST(Utf8, ValidityOfLongerTexts) {
  for (const char lead : std::string_view("\xEF\xF0\xF1\xF3\xF4\xF5")) {
    for (int second = 0; second < 256; second++) {
      for (const char third : std::string_view("\x7F\x80\xBF\xC0")) {
        for (const char fourth : std::string_view("\x7F\x80\xBF\xC0")) {
          ExpectSameVerdict({lead, static_cast<char>(second), third, fourth});
          if (testing::Test::HasFatalFailure()) return;
        }
      }
    }
  }
  // Characters of all lengths, now and then with a stray byte between them.
  std::mt19937 random(20);
  for (int i = 0; i < 20000; i++) {
    std::string text;
    for (size_t n = random() % 16; n > 0; n--) {
      const auto c = static_cast<uint32_t>(random() >> (11 + random() % 21));
      text += Encode(c, ShortestLength(c));
      if (random() % 16 == 0) text += static_cast<char>(random());
    }
    ExpectSameVerdict(text);
    if (testing::Test::HasFatalFailure()) return;
  }
}

TEST(Utf8, DecodesEachCharacterInItsShortestFormOnly) {
  for (uint32_t c = 0; c < 0x140000; c += c < 0x11000 ? 1 : 61) {
    const size_t shortest = ShortestLength(c);
    for (size_t length = shortest; length <= 4; length++) {
      // In a block of its own size, so that reading past the end is seen.
      const std::string bytes = Encode(c, length);
      uint32_t decoded = ~0U;
      const size_t got = CodeSet_GetUtf8(bytes.data(), bytes.data() + length, &decoded);
      ASSERT_EQ(length == shortest ? length : 0, got) << std::hex << c;
      ASSERT_EQ(length == shortest ? c : ~0U, decoded);
      ASSERT_EQ(0U, CodeSet_GetUtf8(bytes.data(), bytes.data() + length - 1, &decoded));
      for (size_t i = 1; i < length && c % 0x101 == 0; i++) {
        std::string broken = bytes;
        broken[i] = static_cast<char>(broken[i] ^ (c % 2 == 0 ? 0x40 : 0x80));
        ASSERT_EQ(0U, CodeSet_GetUtf8(broken.data(), broken.data() + length, &decoded));
      }
    }
  }
  for (const char lead : std::string_view("\xF5\xF8\xFC\xFE\xFF")) {
    uint32_t decoded;
    const std::string bytes = {lead, '\x80', '\x80', '\x80', '\x80', '\x80'};
    EXPECT_EQ(0U, CodeSet_GetUtf8(bytes.data(), bytes.data() + bytes.size(), &decoded));
  }
}

TEST(CurrentEncoding, CopiesWhatIsValidAndTerminatesItForAnyUnit) {
  for (const auto convert : {CodeSet_Utf8ToCurrent, CodeSet_CurrentToUtf8}) {
    using std::string_literals::operator""s;
    for (const std::string &text : {""s, "a\0\xF4\x8F\xBF\xBF"s, std::string(5000, 'x')}) {
      char *out = nullptr;
      size_t length = 1;
      const char *const bytes = text.empty() ? nullptr : text.data();
      ASSERT_TRUE(convert(bytes, text.size(), &out, &length));
      const HeapStr owner(out);
      EXPECT_EQ(text.size(), length);
      EXPECT_EQ(text + std::string(4, '\0'), std::string(out, length + 4));
    }
    for (const std::string &text : {"\xED\xA0\x80"s, "\xF4\x90\x80\x80"s, "ok\xC3"s, "\xC0\x80"s}) {
      char *out = nullptr;
      size_t length = 1;
      EXPECT_FALSE(convert(text.data(), text.size(), &out, &length));
      EXPECT_EQ(nullptr, out);
      EXPECT_EQ(1U, length);
    }
  }
}

}  // namespace
