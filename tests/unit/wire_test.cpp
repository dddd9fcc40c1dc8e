// wire_test.cpp -- what the system tests cannot see of the one-byte protocol: messages that carry
// anything but one descriptor, and failures that are not told.

#include "opener/serviceImplWire.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>

#include "fd.h"
#include "tests/support/capture.h"
#include "tests/support/peer.h"
#include "tests/support/process.h"

namespace {

struct Wire : testing::Test {
  Fd a, b;
  Wire() {
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    a.Reset(ends[0]);
    b.Reset(ends[1]);
  }
  // What a procedure logs when it fails.
  static std::string Failure(const std::function<bool()> &procedure) {
    return WithoutStamps(CaptureOutput([&] { EXPECT_FALSE(procedure()); }));
  }
};

TEST_F(Wire, TakesExactlyOneDescriptorAndClosesOthers) {
  for (const size_t count : {0U, 1U, 2U, 20U}) {
    SendFds(a, "\xe7", STDIN_FILENO, count);
    const size_t before = OpenDescriptors();
    int received = -1;
    const auto receive = [&] { return ServiceImplRecvFd(b.Get(), &received); };
    if (count == 1) {
      EXPECT_TRUE(receive());
      EXPECT_EQ('\xe7', ServiceImplExchangeByte());
      Fd(received).Reset();
    } else {
      EXPECT_EQ("Warning: ServiceImplRecvFd: Unexpected message.\n", Failure(receive));
    }
    EXPECT_EQ(before, OpenDescriptors()) << count;
  }
}

TEST_F(Wire, SaysNothingOfAPeerThatHasGone) {
  int fd;
  signal(SIGPIPE, SIG_IGN);
  ASSERT_EQ(1, write(b.Get(), "x", 1));
  a.Reset();  // with a byte unread: Linux resets the connection
  EXPECT_EQ("", Failure([&] { return ServiceImplRecvFd(b.Get(), &fd); }));
  EXPECT_EQ("", Failure([&] { return ServiceImplWriteOne(b.Get(), '1'); }));
  signal(SIGPIPE, SIG_DFL);  // which would end the test
  EXPECT_EQ("", Failure([&] { return ServiceImplSendFd(b.Get(), STDIN_FILENO); }));
}

}  // namespace
