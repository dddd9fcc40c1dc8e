// err_test.cpp -- texts of errno values, with the host's own as second opinion.

#include "err.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

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
  EXPECT_EQ(-5, Err_StringToErrno(Err_ErrnoToString(-5)));
  EXPECT_EQ(-1, Err_StringToErrno(nullptr));
}

}  // namespace
