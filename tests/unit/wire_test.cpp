// wire_test.cpp -- what the system tests cannot see of the one-byte protocol: messages that carry
// anything but one descriptor, and which failures are told.

#include "opener/serviceImplWire.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>

#include "fd.h"
#include "tests/support/capture.h"
#include "tests/support/fakeService.h"
#include "tests/support/process.h"

namespace {

struct Pair {
  Fd a, b;
  Pair() {
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    a.Reset(ends[0]);
    b.Reset(ends[1]);
  }
};

// What a procedure logs when it fails.
std::string Failure(const std::function<bool()> &procedure) {
  return WithoutStamps(CaptureOutput([&] { EXPECT_FALSE(procedure()); }));
}

TEST(RecvFd, TakesExactlyOneDescriptorAndClosesOthers) {
  for (const size_t count : {0U, 1U, 2U, 3U, 20U}) {
    const Pair pair;
    SendFds(pair.a.Get(), "\xe7", STDIN_FILENO, count);
    const size_t before = OpenDescriptors();
    int received = -1;
    const auto receive = [&] { return ServiceImplRecvFd(pair.b.Get(), &received); };
    if (count == 1) {
      EXPECT_TRUE(receive());
      EXPECT_EQ('\xe7', ServiceImplExchangeByte());
      Fd(received).Reset();
    } else {
      EXPECT_EQ("Warning: ServiceImplRecvFd: Unexpected message.\n", Failure(receive));
      EXPECT_EQ(-1, received);
    }
    EXPECT_EQ(before, OpenDescriptors()) << count;
  }
}

TEST(Wire, FailuresAreToldButForAPeerThatHasGone) {
  const Fd name(open("/", O_PATH));  // has flags, but none that can be set
  char byte;
  int fd;
  const struct {
    const char *call;
    std::function<bool()> procedure;
  } rows[] = {
      {"ServiceImplSendFd: sendmsg", [] { return ServiceImplSendFd(9999, 0); }},
      {"ServiceImplRecvFd: recvmsg", [&] { return ServiceImplRecvFd(9999, &fd); }},
      {"ServiceImplReadOne: read",
       [&] { return ServiceImplReadOne(9999, &byte) != SERVICEIMPL_READ_ERROR; }},
      {"ServiceImplWriteOne: write", [] { return ServiceImplWriteOne(9999, '1'); }},
      {"ServiceImplSetBlockingState: fcntl get",
       [] { return ServiceImplSetBlockingState(9999, true); }},
      {"ServiceImplSetBlockingState: fcntl set",
       [&] { return ServiceImplSetBlockingState(name.Get(), true); }},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(std::string("Warning: ") + row.call + " errno " + std::to_string(EBADF) + ".\n",
              Failure(row.procedure));
  }

  signal(SIGPIPE, SIG_IGN);
  Pair pair;
  ASSERT_EQ(1, write(pair.b.Get(), "x", 1));
  pair.a.Reset();  // with a byte unread: Linux resets the connection
  EXPECT_EQ("", Failure([&] { return ServiceImplRecvFd(pair.b.Get(), &fd); }));
  EXPECT_EQ("", Failure([&] { return ServiceImplWriteOne(pair.b.Get(), '1'); }));
  signal(SIGPIPE, SIG_DFL);  // which would end the test
  EXPECT_EQ("", Failure([&] { return ServiceImplSendFd(pair.b.Get(), STDIN_FILENO); }));
}

TEST(Close, EmptiesTheSlotWhateverHappens) {
  bool ok = true;
  for (const int fd : {-1, dup(STDIN_FILENO), 9999}) {
    int slot = fd;
    EXPECT_EQ(fd != 9999, ServiceImplClose(&slot, &ok));
    EXPECT_EQ(fd != 9999, ok);
    EXPECT_EQ(-1, slot);
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
  }
}

TEST(SetBlockingState, ChangesThatFlagOnly) {
  const Pair pair;
  ASSERT_EQ(0, fcntl(pair.a.Get(), F_SETFL, O_APPEND));  // meaningless here, but a flag
  const int before = fcntl(pair.a.Get(), F_GETFL);
  EXPECT_TRUE(ServiceImplSetBlockingState(pair.a.Get(), false));
  EXPECT_EQ(before | O_NONBLOCK, fcntl(pair.a.Get(), F_GETFL));
  EXPECT_TRUE(ServiceImplSetBlockingState(pair.a.Get(), true));
  EXPECT_EQ(before, fcntl(pair.a.Get(), F_GETFL));
}

}  // namespace
