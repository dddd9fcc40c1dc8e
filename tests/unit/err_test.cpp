// err_test.cpp -- texts of errno values, with the host's own as second opinion.

#include "err.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

namespace {

// Texts of a host for numbers from kFirstMade on, and what is kept of them.
constexpr unsigned kFirstMade = 1'000'000;
const char *const kMade[][2] = {{"caf\xc3\xa9", "caf\xc3\xa9"},
                                {"caf\xc3", "caf"},
                                {"x\xe2\x82", "x"},
                                {"\xf0\x9f\x98", ""},
                                {"\x82\x82\x82\x82", "\x82\x82\x82\x82"},
                                {"", ""}};

}  // namespace

extern "C" {
char *__real_strerror_r(int error, char *buffer, size_t size);
char *__wrap_strerror_r(int error, char *buffer, size_t size);
char *__wrap_strerror_r(int error, char *buffer, size_t size) {
  const auto made = static_cast<unsigned>(error) - kFirstMade;
  errno = EBADF;
  if (made >= std::size(kMade)) return __real_strerror_r(error, buffer, size);
  return const_cast<char *>(kMade[made][0]);
}
}

namespace {

TEST(Err, TextsAreTheHostsAndTellTheirValue) {
  for (int number = 0; number < 140; ++number) {
    errno = number;
    const char *const text = Err_ErrString();
    EXPECT_EQ(number, errno);
    EXPECT_STREQ(strerror(number), text);
    EXPECT_EQ(text, Err_ErrnoToString(number));
    EXPECT_EQ(number, Err_StringToErrno(text));
    EXPECT_EQ(-1, Err_StringToErrno(std::string(text).c_str()));
  }
  for (const int number : {-1, INT_MIN, INT_MAX}) {
    const char *const text = Err_ErrnoToString(number);
    EXPECT_EQ("Unknown error " + std::to_string(number), text);
    EXPECT_EQ(number, Err_StringToErrno(text));
  }
  EXPECT_EQ(-1, Err_StringToErrno(nullptr));
}

TEST(Err, NoTextEndsWithinACharacter) {
  for (unsigned i = 0; i < std::size(kMade); ++i) {
    EXPECT_STREQ(kMade[i][1], Err_ErrnoToString(static_cast<int>(kFirstMade + i)));
  }
}

}  // namespace
