// base64_test.cpp -- Base64 against OpenSSL, the room that it takes, and texts that are none.

#include "base64.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdint>
#include <random>
#include <string>

namespace {

TEST(Base64, AgreesWithOpenSslAndStaysInItsRoom) {
  std::mt19937 random(64);
  std::string bytes(300, '\0');
  for (char &byte : bytes) byte = static_cast<char>(random());
  for (size_t size = 0; size < bytes.size(); size++) {
    std::string expected((size + 2) / 3 * 4 + 1, '\0');
    EVP_EncodeBlock(reinterpret_cast<unsigned char *>(expected.data()),
                    reinterpret_cast<const unsigned char *>(bytes.data()), static_cast<int>(size));
    std::string out(expected.size() + 1, '#'), back(size + 1, '#');
    size_t length = 0;
    ASSERT_TRUE(Base64_Encode(bytes.data(), size, out.data(), expected.size(), &length));
    EXPECT_EQ(expected + '#', out);
    EXPECT_EQ(expected.size() - 1, length);
    EXPECT_FALSE(Base64_Encode("x", size, out.data(), expected.size() - 1, &length));
    ASSERT_TRUE(Base64_Decode(expected.c_str(), back.data(), size, &length));
    EXPECT_EQ(size, length);
    EXPECT_EQ(bytes.substr(0, size) + '#', back);
    EXPECT_EQ(size == 0, Base64_Decode(expected.c_str(), back.data(), size - 1, &length));
  }
}

TEST(Base64, RefusesWhatHasNoTextAndTextsThatAreNone) {
  char out[8];
  size_t length;
  for (const size_t size : {SIZE_MAX, SIZE_MAX - 1, SIZE_MAX - 2}) {
    EXPECT_FALSE(Base64_Encode("x", size, out, SIZE_MAX, nullptr));
  }
  for (const char *text :
       {"QUI", "QUI=QUI=", "=QUI", "QQ=Q", "Q===", "QUJ=", "QR==", "QU I", "QU-I"}) {
    EXPECT_FALSE(Base64_Decode(text, out, sizeof out, &length)) << text;
    EXPECT_EQ(0U, length);
  }
}

}  // namespace
