// delivery.cpp -- reading a descriptor that others share and chose: a file, a pipe, a socket, a
// terminal, a directory.
//
// O_NONBLOCK belongs to the open file, which the opener's caller goes on using: setting it would
// make reads and writes fail elsewhere that never failed before.  So the flags stay as they are, and
// a read must not begin when there is nothing to read:
//   - one piece a turn, so that an endless file does not starve the others;
//   - poll(2) once more right before the read (connection.cpp): hundreds of deliveries may be one
//     pipe, which all became readable by one byte that the first of them took;
//   - a timer, for the case that another reader takes the bytes between the two.
// What stays: a file system that a user serves (FUSE, a network drive that is gone) can hold a
// process in read or close for as long as that user likes, and no signal ends that.  A daemon that
// must survive this handles each connection in a process of its own.

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

// FNV-1a, 64 bits: enough to tell whether the very bytes arrived, and nothing more.
constexpr uint64_t kHashStart = 0xcbf29ce484222325;
constexpr uint64_t kHashPrime = 0x100000001b3;

// Static, because the limit of the stack may be whatever the user who started the service wanted,
// and it cannot be raised everywhere.
char piece[kPieceSize];

// read(2), which gives EINTR when there is nothing to read for kPatienceUs.  The timer repeats: its
// first signal may come before the read has begun.
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
