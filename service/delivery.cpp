// delivery.cpp -- reads a descriptor that a user chose and still shares: a file, a pipe, a socket, a
// terminal, a directory.
//
// O_NONBLOCK is a property of the open file, which the opener's caller goes on using: setting it would
// make that caller's reads and writes fail.  So the flags are left alone, and no read may start when there
// is nothing to read:
//   - one piece a turn, so that an endless file does not starve the other deliveries;
//   - poll(2) again right before the read (connection.cpp): hundreds of deliveries may be the same
//     pipe, which a single byte makes readable for all, and the first one takes it;
//   - a timer, in case another reader takes the bytes between poll and read.
// Not covered: a file system that a user serves (FUSE, a network drive that is gone) can block a process
// in read or close for as long as that user likes, and no signal ends that.  A daemon that must survive
// this handles each connection in a process of its own.
// Tests: tests/system/service_test.cpp, handoff_test.cpp

#include "service/delivery.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "lib/public/errnoKeeper.h"
#include "lib/public/log.h"

namespace {

constexpr size_t kPieceSize = 65536;
constexpr int kPatienceUs = 2'000;

// FNV-1a, 64 bits: enough for a test to see that the right bytes have arrived, no protection.
constexpr uint64_t kHashStart = 0xcbf29ce484222325;
constexpr uint64_t kHashPrime = 0x100000001b3;

// Not on the stack: its limit is inherited from the user whose opener started the service, and not every
// host lets it be raised.
char piece[kPieceSize];

// read(2) that fails with EINTR if there is nothing to read for kPatienceUs.  The timer repeats, since
// its first signal may arrive before the read has begun.
ssize_t ReadBriefly(int fd, char *buffer, size_t size) {
  const itimerval soon = {{0, kPatienceUs}, {0, kPatienceUs}};
  const itimerval never = {};
  setitimer(ITIMER_REAL, &soon, nullptr);
  const ssize_t got = read(fd, buffer, size);
  const ErrnoKeeper keeper;
  setitimer(ITIMER_REAL, &never, nullptr);
  return got;
}

char Printable(char c) {
  return c >= ' ' && c <= '~' ? c : '.';
}

}  // namespace

void Delivery::Begin(Fd fd) {
  fd_ = std::move(fd);
  bytes_ = 0;
  hash_ = kHashStart;
  beginning_ = {};
}

void Delivery::Take(const char *bytes, size_t count) {
  for (size_t i = 0; i < count && bytes_ + i < kShown; i++) {
    beginning_[static_cast<size_t>(bytes_) + i] = Printable(bytes[i]);
  }
  for (size_t i = 0; i < count; i++) {
    hash_ = (hash_ ^ static_cast<unsigned char>(bytes[i])) * kHashPrime;
  }
  bytes_ += count;
}

void Delivery::ReadSome(unsigned serial) {
  const ssize_t got = ReadBriefly(fd_.Get(), piece, sizeof piece);
  if (got > 0) {
    Take(piece, static_cast<size_t>(got));
    return;
  }
  const int error = errno;
  if (got < 0 && (error == EINTR || error == EAGAIN || error == EWOULDBLOCK)) return;
  if (got < 0) Warning("#%u: read errno %d.\n", serial, error);
  Log("#%u: end after %llu bytes, FNV-1a %016llx, \"%s\".\n", serial,
      static_cast<unsigned long long>(bytes_), static_cast<unsigned long long>(hash_),
      beginning_.data());
  fd_.Reset();
}
