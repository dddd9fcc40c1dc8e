// wire_test.cpp -- both ends of the one-byte protocol and the descriptor that goes with it.

#include "opener/serviceImplWire.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fd.h"
#include "platform/unixSocket.h"
#include "tests/support/capture.h"
#include "tests/support/scratchDir.h"

namespace {

struct Pair {
  Fd a, b;
  Pair() {
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
    a.Reset(ends[0]);
    b.Reset(ends[1]);
    EXPECT_TRUE(Platform_SetNoSigpipe(a.Get()));
    EXPECT_TRUE(Platform_SetNoSigpipe(b.Get()));
  }
};

size_t OpenDescriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/dev/fd")) count++;
  return count;
}

std::string Line(const char *format, int number) {
  char line[100];
  snprintf(line, sizeof line, format, number);
  return std::string("Warning: ") + line;
}

// What `body` logs.
std::string Logged(const std::function<void()> &body) {
  return WithoutStamps(CaptureOutput(body));
}

// One message of `payload` with `count` copies of `fd`.
void SendMany(int sock, const std::string &payload, int fd, size_t count) {
  std::vector<int> fds(count, fd);
  std::vector<char> control(CMSG_SPACE(count * sizeof(int)));
  iovec data = {const_cast<char *>(payload.data()), payload.size()};
  msghdr message = {};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  if (count > 0) {
    message.msg_control = control.data();
    message.msg_controllen = static_cast<decltype(message.msg_controllen)>(control.size());
    cmsghdr *const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(static_cast<unsigned>(count * sizeof(int)));
    memcpy(CMSG_DATA(header), fds.data(), count * sizeof(int));
  }
  ASSERT_EQ(static_cast<ssize_t>(payload.size()), sendmsg(sock, &message, 0));
}

TEST(SendFd, DeliversTheOpenFileAndTheExchangeByte) {
  const Pair pair;
  const Fd file(open("/dev/null", O_WRONLY));
  ServiceImplExchangeByte() = '\xe7';
  ASSERT_TRUE(ServiceImplSendFd(pair.a.Get(), file.Get()));
  ServiceImplExchangeByte() = 0;
  int received = -1;
  ASSERT_TRUE(ServiceImplRecvFd(pair.b.Get(), &received));
  const Fd owned(received);
  EXPECT_EQ('\xe7', ServiceImplExchangeByte());
  struct stat sent, got;
  ASSERT_EQ(0, fstat(file.Get(), &sent));
  ASSERT_EQ(0, fstat(received, &got));
  EXPECT_EQ(sent.st_rdev, got.st_rdev);
  EXPECT_EQ(O_WRONLY, fcntl(received, F_GETFL) & O_ACCMODE);
}

TEST(SendFd, IsSilentOnlyAboutAPeerThatHasGone) {
  Pair pair;
  EXPECT_EQ(Line("ServiceImplSendFd: sendmsg errno %d.\n", EBADF),
            Logged([&] { EXPECT_FALSE(ServiceImplSendFd(pair.a.Get(), 9999)); }));
  pair.b.Reset();
  // SIGPIPE has its default action here: it would end the test.
  EXPECT_EQ("", Logged([&] { EXPECT_FALSE(ServiceImplSendFd(pair.a.Get(), STDIN_FILENO)); }));
}

TEST(RecvFd, RefusesAndClosesWhatIsNotExactlyOneDescriptor) {
  for (const size_t count : {0U, 2U, 3U, 20U}) {
    const Pair pair;
    SendMany(pair.a.Get(), "g", STDIN_FILENO, count);
    const size_t before = OpenDescriptors();
    int received = -1;
    EXPECT_EQ("Warning: ServiceImplRecvFd: Unexpected message.\n",
              Logged([&] { EXPECT_FALSE(ServiceImplRecvFd(pair.b.Get(), &received)); }))
        << count;
    EXPECT_EQ(-1, received) << count;
    EXPECT_EQ(before, OpenDescriptors()) << count;
  }
}

TEST(RecvFd, IsSilentOnlyAboutAPeerThatHasGone) {
  Pair pair;
  ASSERT_EQ(1, write(pair.b.Get(), "x", 1));
  pair.a.Reset();  // with a byte unread: Linux resets the connection
  int received = -1;
  EXPECT_EQ("", Logged([&] { EXPECT_FALSE(ServiceImplRecvFd(pair.b.Get(), &received)); }));
  EXPECT_EQ(Line("ServiceImplRecvFd: recvmsg errno %d.\n", EBADF),
            Logged([&] { EXPECT_FALSE(ServiceImplRecvFd(9999, &received)); }));
}

TEST(ReadOne, TellsByteEndAndErrorApart) {
  Pair pair;
  ASSERT_EQ(2, write(pair.b.Get(), "xy", 2));
  char byte = 0;
  EXPECT_EQ(SERVICEIMPL_READ_BYTE, ServiceImplReadOne(pair.a.Get(), &byte));
  EXPECT_EQ('x', byte);
  EXPECT_EQ(SERVICEIMPL_READ_BYTE, ServiceImplReadOne(pair.a.Get(), &byte));
  EXPECT_EQ('y', byte);
  pair.b.Reset();
  EXPECT_EQ("", Logged([&] {
              EXPECT_EQ(SERVICEIMPL_READ_EOF, ServiceImplReadOne(pair.a.Get(), &byte));
            }));
  EXPECT_EQ(Line("ServiceImplReadOne: read errno %d.\n", EBADF),
            Logged([&] { EXPECT_EQ(SERVICEIMPL_READ_ERROR, ServiceImplReadOne(9999, &byte)); }));
}

// An opener that waits in the queue of another one, which dies, has to begin again: not to fail.
TEST(ReadOne, SeesAnEndWhenTheListenerGoesBeforeItAccepts) {
  const ScratchDir dir;
  sockaddr_un address;
  Platform_InitUnixAddress(&address, dir.Path("s").size());
  strcpy(address.sun_path, dir.Path("s").c_str());
  const auto *const name = reinterpret_cast<const sockaddr *>(&address);
  Fd listener(socket(AF_UNIX, SOCK_STREAM, 0));
  const Fd client(socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(0, bind(listener.Get(), name, sizeof address));
  ASSERT_EQ(0, listen(listener.Get(), 0));
  ASSERT_EQ(0, connect(client.Get(), name, sizeof address));
  listener.Reset();
  char byte = 0;
  EXPECT_EQ("", Logged([&] {
              EXPECT_EQ(SERVICEIMPL_READ_EOF, ServiceImplReadOne(client.Get(), &byte));
            }));
}

TEST(WriteOne, WritesAndIsSilentOnlyAboutAReaderThatHasGone) {
  signal(SIGPIPE, SIG_IGN);
  Pair pair;
  char byte = 0;
  EXPECT_TRUE(ServiceImplWriteOne(pair.a.Get(), '1'));
  EXPECT_EQ(SERVICEIMPL_READ_BYTE, ServiceImplReadOne(pair.b.Get(), &byte));
  EXPECT_EQ('1', byte);
  pair.b.Reset();
  EXPECT_EQ("", Logged([&] { EXPECT_FALSE(ServiceImplWriteOne(pair.a.Get(), '1')); }));
  EXPECT_EQ(Line("ServiceImplWriteOne: write errno %d.\n", EBADF),
            Logged([&] { EXPECT_FALSE(ServiceImplWriteOne(9999, '1')); }));
  signal(SIGPIPE, SIG_DFL);
}

TEST(Close, EmptiesTheSlotWhateverHappens) {
  bool ok = true;
  int slot = -1;
  EXPECT_TRUE(ServiceImplClose(&slot, &ok));
  slot = dup(STDIN_FILENO);
  const int number = slot;
  EXPECT_TRUE(ServiceImplClose(&slot, &ok));
  EXPECT_EQ(-1, slot);
  EXPECT_TRUE(ok);
  EXPECT_EQ(-1, fcntl(number, F_GETFD));

  slot = 9999;
  char expected[100];
  snprintf(expected, sizeof expected, "Warning: ServiceImplClose: close 9999 errno %d.\n", EBADF);
  EXPECT_EQ(expected, Logged([&] { EXPECT_FALSE(ServiceImplClose(&slot, &ok)); }));
  EXPECT_EQ(-1, slot);
  EXPECT_FALSE(ok);
  slot = 9999;
  EXPECT_FALSE(ServiceImplClose(&slot, nullptr));
  EXPECT_EQ(-1, slot);
}

TEST(SetBlockingState, ChangesThatFlagOnly) {
  const Pair pair;
  ASSERT_EQ(0, fcntl(pair.a.Get(), F_SETFL, O_APPEND));  // meaningless here, but a flag
  const int before = fcntl(pair.a.Get(), F_GETFL);
  EXPECT_TRUE(ServiceImplSetBlockingState(pair.a.Get(), false));
  EXPECT_EQ(before | O_NONBLOCK, fcntl(pair.a.Get(), F_GETFL));
  EXPECT_TRUE(ServiceImplSetBlockingState(pair.a.Get(), true));
  EXPECT_EQ(before, fcntl(pair.a.Get(), F_GETFL));
  EXPECT_EQ(Line("ServiceImplSetBlockingState: fcntl get errno %d.\n", EBADF),
            Logged([] { EXPECT_FALSE(ServiceImplSetBlockingState(9999, true)); }));
  const Fd name(open("/", O_PATH));  // has flags, but none that can be set
  EXPECT_EQ(Line("ServiceImplSetBlockingState: fcntl set errno %d.\n", EBADF),
            Logged([&] { EXPECT_FALSE(ServiceImplSetBlockingState(name.Get(), true)); }));
}

}  // namespace
