// base64_test.cpp -- Base64 against OpenSSL, and the room that it takes.

#include "base64.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

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
    EXPECT_FALSE(Base64_Encode(bytes.data(), size, out.data(), expected.size() - 1, &length));
    EXPECT_EQ(0U, length);
    EXPECT_EQ(expected + '#', out);
  }
}

TEST(Base64, RefusesSizesWhoseTextHasNone) {
  for (const size_t size : {SIZE_MAX, SIZE_MAX - 1, SIZE_MAX - 2}) {
    char out[] = "untouched";
    EXPECT_FALSE(Base64_Encode("x", size, out, SIZE_MAX, nullptr));
    EXPECT_STREQ("untouched", out);
  }
  char out[1] = {'x'};
  EXPECT_TRUE(Base64_Encode(nullptr, 0, out, sizeof out, nullptr));
  EXPECT_EQ('\0', out[0]);
}

}  // namespace
