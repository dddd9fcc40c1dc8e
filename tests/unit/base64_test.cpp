// base64_test.cpp -- Base64 against the vectors of RFC 4648 and against OpenSSL.

#include "base64.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

TEST(Base64, EncodesTheVectorsOfTheStandard) {
  static constexpr std::pair<std::string_view, std::string_view> kVectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const auto &[bytes, text] : kVectors) {
    char out[16];
    size_t length = 99;
    ASSERT_TRUE(Base64_Encode(bytes.data(), bytes.size(), out, text.size() + 1, &length));
    EXPECT_EQ(text, out);
    EXPECT_EQ(text.size(), length);
  }
  char out[1] = {'x'};
  EXPECT_TRUE(Base64_Encode(nullptr, 0, out, sizeof out, nullptr));
  EXPECT_EQ('\0', out[0]);
}

TEST(Base64, AgreesWithOpenSslAndStaysInItsRoom) {
  std::mt19937 random(64);
  for (size_t size = 0; size < 300; size++) {
    std::vector<uint8_t> bytes(size);
    for (uint8_t &byte : bytes) byte = static_cast<uint8_t>(random());
    std::string expected((size + 2) / 3 * 4 + 1, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char *>(expected.data()), bytes.data(),
                    static_cast<int>(size));
    std::string out(expected.size() + 1, '#');
    size_t length = 0;
    ASSERT_TRUE(Base64_Encode(bytes.data(), size, out.data(), expected.size(), &length));
    EXPECT_EQ(expected + '#', out);
    EXPECT_EQ(expected.size() - 1, length);
  }
}

TEST(Base64, RefusesWhatDoesNotFitAndWritesNothing) {
  const char bytes[12] = {};
  struct {
    size_t size, room;
  } const rows[] = {
      {12, 16},
      {12, 0},
      {0, 0},
      {1, 4},
      {SIZE_MAX, 64},
      {SIZE_MAX - 1, 64},
      {SIZE_MAX - 2, SIZE_MAX},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.size << " bytes, room " << row.room);
    char out[17] = "untouched";
    size_t length = 99;
    EXPECT_FALSE(Base64_Encode(bytes, row.size, out, row.room, &length));
    EXPECT_STREQ("untouched", out);
    EXPECT_EQ(0U, length);
    EXPECT_FALSE(Base64_Encode(bytes, row.size, out, row.room, nullptr));
  }
  char out[17];
  EXPECT_TRUE(Base64_Encode(bytes, sizeof bytes, out, sizeof out, nullptr));
  EXPECT_STREQ("AAAAAAAAAAAAAAAA", out);
}

}  // namespace
