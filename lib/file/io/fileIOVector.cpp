// fileIOVector.cpp -- vectors: many entries in one transfer.
//
// Idea:       three straight loops transfer the entries of a vector, in the caller's own array: by
//             readv(2), by writev(2), and entry by entry by pwrite(2).  Where a Coalesced buffer
//             stands in for the vector, the same loops get it as their only entry.
// Invariants: 1. Only a vector whose lengths add up to totalSize goes through a buffer, so gathering
//             and scattering stay inside the buffer and inside the entries.
//             2. Of a read, only what was read is scattered.
// Tests: tests/unit/fileIO_test.cpp

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

#include "lib/file/io/fileIOFaceInt.h"
#include "lib/file/raw/fileIOInt.h"
#include "lib/public/fatal.h"
#include "lib/public/fileIO.h"
#include "lib/public/heap.h"

namespace {

constexpr char kSource[] = "lib/file/fileIOVector";
constexpr size_t kMaxEntriesPerCall = 1024;

using Entries = std::span<const iovec>;

// The lengths of a vector, added up and compared with the totalSize that the caller gave.
enum class Sum { TooSmall, Exact, TooLarge };

Sum SumOf(Entries entries, size_t totalSize) {
  if (totalSize > kFileIOMaxRequest) Fatal_Verify(kSource, 178);
  size_t left = totalSize;
  for (const iovec &entry : entries) {
    if (entry.iov_len > left) return Sum::TooLarge;
    left -= entry.iov_len;
  }
  return left == 0 ? Sum::Exact : Sum::TooSmall;
}

Entries EntriesOf(const iovec *entries, int count) {
  return {entries, count < 0 ? 0 : static_cast<size_t>(count)};
}

// ---- one buffer in place of a vector -------------------------------------------------------------

enum class Coalesce { Never, AsConfigured, Always };

class Coalesced {
  Entries entries_;
  FileIOAlignedBuffer aligned_{nullptr, FileIOAlignedFreer{0}};
  HeapArray<char> plain_;
  iovec whole_ = {};

 public:
  Coalesced(const FileIODescriptor &fd, Entries entries, size_t totalSize, Coalesce when);

  // Whether there is a buffer.
  explicit operator bool() const { return whole_.iov_base != nullptr; }
  // What to transfer in place of the vector: the vector itself when there is no buffer.
  Entries Get() const { return *this ? Entries(&whole_, 1) : entries_; }
  void Gather() const;
  void Scatter(size_t size) const;
};

bool IsWorthIt(size_t count, size_t totalSize) {
  const FileIOSettings &settings = FileIOGetSettings();
  return settings.coalesceEnable && static_cast<int64_t>(count) > settings.coalesceCount &&
         static_cast<int64_t>(totalSize / count) < settings.coalesceSize;
}

Coalesced::Coalesced(const FileIODescriptor &fd, Entries entries, size_t totalSize, Coalesce when)
    : entries_(entries) {
  if (when == Coalesce::Never || entries.size() < 2 || totalSize == 0) return;
  if (when == Coalesce::AsConfigured && !IsWorthIt(entries.size(), totalSize)) return;
  if ((fd.flags & FILEIO_FLAG_UNBUFFERED) != 0 || FileIOGetSettings().coalesceAligned) {
    aligned_ = FileIOAlignedAlloc(totalSize);
    whole_ = {aligned_.get(), totalSize};
  } else {
    plain_ = Heap_Array<char>(totalSize);
    whole_ = {plain_.get(), totalSize};
  }
}

void Coalesced::Gather() const {
  if (!*this) return;
  auto *to = static_cast<char *>(whole_.iov_base);
  for (const iovec &entry : entries_) {
    if (entry.iov_len > 0) memcpy(to, entry.iov_base, entry.iov_len);
    to += entry.iov_len;
  }
}

// Of the first `size` bytes.
void Coalesced::Scatter(size_t size) const {
  if (!*this) return;
  const auto *from = static_cast<const char *>(whole_.iov_base);
  for (const iovec &entry : entries_) {
    const size_t part = std::min(size, entry.iov_len);
    if (part > 0) memcpy(entry.iov_base, from, part);
    from += part;
    size -= part;
  }
}

// ---- the loops -----------------------------------------------------------------------------------

// Removes the entries that `n` bytes fill from the front, and the empty ones behind them.  Returns
// how many of the bytes belong to the entry that is in front then.
size_t SkipFilled(Entries *entries, size_t n) {
  while (!entries->empty() && n >= entries->front().iov_len) {
    n -= entries->front().iov_len;
    *entries = entries->subspan(1);
  }
  return n;
}

// As many entries as one call takes.
Entries OneCall(Entries entries) {
  return entries.first(std::min(entries.size(), kMaxEntriesPerCall));
}

// The rest of an entry that a call ended in is read by itself.
FileIOResult ReadEntries(FileIODescriptor *fd, Entries left, size_t *total) {
  SkipFilled(&left, 0);
  while (!left.empty()) {
    const Entries part = OneCall(left);
    const ssize_t n = readv(fd->posix, part.data(), static_cast<int>(part.size()));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return FileIOResultOfErrno(errno);
    if (n == 0) return FILEIO_READ_ERROR_EOF;
    *total += static_cast<size_t>(n);
    const size_t begun = SkipFilled(&left, static_cast<size_t>(n));
    if (begun == 0) continue;
    const iovec &entry = left.front();
    size_t more = 0;
    const FileIOResult result =
        FileIO_Read(fd, static_cast<char *>(entry.iov_base) + begun, entry.iov_len - begun, &more);
    *total += more;
    if (result != FILEIO_SUCCESS) return result;
    left = left.subspan(1);
    SkipFilled(&left, 0);
  }
  return FILEIO_SUCCESS;
}

// A write that ends inside an entry has met the end of the room.
FileIOResult WriteEntries(FileIODescriptor *fd, Entries left, size_t *total) {
  SkipFilled(&left, 0);
  while (!left.empty()) {
    const Entries part = OneCall(left);
    const ssize_t n = writev(fd->posix, part.data(), static_cast<int>(part.size()));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return FileIOResultOfErrno(errno);
    *total += static_cast<size_t>(n);
    if (SkipFilled(&left, static_cast<size_t>(n)) == 0 && n > 0) continue;
    errno = ENOSPC;
    return FILEIO_WRITE_ERROR_NOSPC;
  }
  return FILEIO_SUCCESS;
}

FileIOResult WriteEntriesAt(FileIODescriptor *fd, Entries entries, off_t offset, size_t *total) {
  for (const iovec &entry : entries) {
    const auto *const bytes = static_cast<const char *>(entry.iov_base);
    for (size_t done = 0; done < entry.iov_len;) {
      const ssize_t n = pwrite(fd->posix, bytes + done, entry.iov_len - done, offset);
      if (n < 0 && errno == EINTR) continue;
      if (n == 0) errno = ENOSPC;
      if (n <= 0) return FileIOResultOfErrno(errno);
      done += static_cast<size_t>(n);
      offset += n;
      *total += static_cast<size_t>(n);
    }
  }
  return FILEIO_SUCCESS;
}

// What the three procedures have in common: the sum of the lengths, the buffer, and what the caller
// learns.  `move` transfers by the buffer, and adds to *done.
template <typename Move>
FileIOResult Transfer(const FileIODescriptor &fd, Entries entries, size_t totalSize, Coalesce when,
                      size_t *actual, const Move &move) {
  const Sum sum = SumOf(entries, totalSize);
  size_t done = 0;
  FileIOResult result = FILEIO_SUCCESS;
  if (sum != Sum::TooLarge) {
    result =
        move(Coalesced(fd, entries, totalSize, sum == Sum::Exact ? when : Coalesce::Never), &done);
  }
  if (actual != nullptr) *actual = done;
  if (result != FILEIO_SUCCESS || sum == Sum::Exact) return result;
  errno = EINVAL;
  return FILEIO_ERROR;
}

}  // namespace

FileIOResult FileIO_Readv(FileIODescriptor *fd, const iovec *entries, int numEntries,
                          size_t totalSize, size_t *actual) {
  return Transfer(*fd, EntriesOf(entries, numEntries), totalSize, Coalesce::AsConfigured, actual,
                  [fd](const Coalesced &buffer, size_t *done) {
                    const FileIOResult result = ReadEntries(fd, buffer.Get(), done);
                    buffer.Scatter(*done);
                    return result;
                  });
}

FileIOResult FileIO_Writev(FileIODescriptor *fd, const iovec *entries, int numEntries,
                           size_t totalSize, size_t *actual) {
  return Transfer(*fd, EntriesOf(entries, numEntries), totalSize, Coalesce::AsConfigured, actual,
                  [fd](const Coalesced &buffer, size_t *done) {
                    buffer.Gather();
                    return WriteEntries(fd, buffer.Get(), done);
                  });
}

FileIOResult FileIOPwritevCoalesced(FileIODescriptor *fd, const iovec *entries, int numEntries,
                                    size_t totalSize, off_t offset, size_t *actual) {
  return Transfer(*fd, EntriesOf(entries, numEntries), totalSize, Coalesce::Always, actual,
                  [fd, offset](const Coalesced &buffer, size_t *done) {
                    buffer.Gather();
                    return WriteEntriesAt(fd, buffer.Get(), offset, done);
                  });
}
