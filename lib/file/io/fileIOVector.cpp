// fileIOVector.cpp -- vectors: many entries in one transfer.
//
// Idea:   a Plan looks at the vector and decides whether its entries go through one buffer.  If so,
//         the transfer is one of a single entry; a write gathers before it, a read scatters after.
//         Then Advance goes from call to call over the entries that are left, in the caller's own
//         array: what is left of an entry that a read ended in is read by itself.
// Holds:  1. Only a vector whose lengths add up to totalSize goes through a buffer, so gathering and
//         scattering stay inside it and inside the entries.
//         2. Of a read, only what was read is scattered.
// Tests:  tests/unit/fileIO_test.cpp

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

// The buffer in place of a vector, from either source.
struct Buffer {
  FileIOAlignedBuffer aligned{nullptr, FileIOAlignedFreer{0}};
  HeapArray<char> plain;

  char *Get() const { return aligned != nullptr ? aligned.get() : plain.get(); }
};

enum class Coalesce { AsConfigured, Always };

// The sign of the sum of the lengths less totalSize.
int CompareSum(Entries entries, size_t totalSize) {
  size_t left = totalSize;
  for (const iovec &entry : entries) {
    if (entry.iov_len > left) return 1;
    left -= entry.iov_len;
  }
  return left == 0 ? 0 : -1;
}

bool IsWorthIt(Entries entries, size_t totalSize) {
  const FileIOSettings &settings = FileIOGetSettings();
  return settings.coalesceEnable && static_cast<int64_t>(entries.size()) > settings.coalesceCount &&
         static_cast<int64_t>(totalSize / entries.size()) < settings.coalesceSize;
}

// Without a buffer, the entries go by themselves.
Buffer BufferFor(const FileIODescriptor &fd, Entries entries, size_t totalSize, Coalesce when) {
  Buffer buffer;
  if (entries.size() < 2 || totalSize == 0) return buffer;
  if (when == Coalesce::AsConfigured && !IsWorthIt(entries, totalSize)) return buffer;
  if ((fd.flags & FILEIO_FLAG_UNBUFFERED) != 0 || FileIOGetSettings().coalesceAligned) {
    buffer.aligned = FileIOAlignedAlloc(totalSize);
  } else {
    buffer.plain = Heap_Array<char>(totalSize);
  }
  return buffer;
}

void Gather(Entries entries, char *to) {
  for (const iovec &entry : entries) {
    if (entry.iov_len > 0) memcpy(to, entry.iov_base, entry.iov_len);
    to += entry.iov_len;
  }
}

void Scatter(Entries entries, const char *from, size_t size) {
  for (const iovec &entry : entries) {
    const size_t part = std::min(size, entry.iov_len);
    if (part > 0) memcpy(entry.iov_base, from, part);
    from += part;
    size -= part;
  }
}

FileIOResult Invalid() {
  errno = EINVAL;
  return FILEIO_ERROR;
}

// Takes the entries that `n` bytes fill off the front, and the empty ones behind them.  Returns how
// many bytes of the next one are done.
size_t Drop(Entries *entries, size_t n) {
  while (!entries->empty() && n >= entries->front().iov_len) {
    n -= entries->front().iov_len;
    *entries = entries->subspan(1);
  }
  return n;
}

// Transfers all entries by call(entries), which is readv or writev, and ends them by
// finish(entry, done), which is told of an entry that the call ended in, of which `done` bytes are
// through; it returns how the entry came out, and adds what it did to *done.
template <typename Call, typename Finish>
FileIOResult Advance(Entries entries, size_t *total, Call call, Finish finish) {
  Drop(&entries, 0);
  while (!entries.empty()) {
    const ssize_t n = call(entries.first(std::min(entries.size(), kMaxEntriesPerCall)));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return FileIOResultOfErrno(errno);
    *total += static_cast<size_t>(n);
    const size_t begun = Drop(&entries, static_cast<size_t>(n));
    if (begun == 0 && n > 0) continue;
    size_t more = 0;
    const FileIOResult result = finish(entries.front(), begun, &more);
    *total += more;
    if (result != FILEIO_SUCCESS) return result;
    entries = entries.subspan(1);
    Drop(&entries, 0);
  }
  return FILEIO_SUCCESS;
}

FileIOResult ReadEntries(FileIODescriptor *fd, Entries entries, size_t *total) {
  return Advance(
      entries, total,
      [&](Entries part) { return readv(fd->posix, part.data(), static_cast<int>(part.size())); },
      [&](const iovec &entry, size_t begun, size_t *more) {
        return FileIO_Read(fd, static_cast<char *>(entry.iov_base) + begun, entry.iov_len - begun,
                           more);
      });
}

FileIOResult WriteEntries(FileIODescriptor *fd, Entries entries, size_t *total) {
  return Advance(
      entries, total,
      [&](Entries part) { return writev(fd->posix, part.data(), static_cast<int>(part.size())); },
      [](const iovec &, size_t, size_t *) {
        errno = ENOSPC;
        return FILEIO_WRITE_ERROR_NOSPC;
      });
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

// What all vectors have in common: transfer(entries, total) on the vector itself or on the one
// buffer in its place.
template <typename Before, typename Transfer, typename After>
FileIOResult Run(const FileIODescriptor &fd, Entries entries, size_t totalSize, size_t *actual,
                 Coalesce when, Before before, Transfer transfer, After after) {
  if (totalSize > kFileIOMaxRequest) Fatal_Verify(kSource, 178);
  size_t total = 0;
  if (actual != nullptr) *actual = 0;
  const int sum = CompareSum(entries, totalSize);
  if (sum > 0) return Invalid();
  const Buffer buffer = sum == 0 ? BufferFor(fd, entries, totalSize, when) : Buffer();
  FileIOResult result;
  if (buffer.Get() == nullptr) {
    result = transfer(entries, &total);
  } else {
    const iovec whole = {.iov_base = buffer.Get(), .iov_len = totalSize};
    before(buffer.Get());
    result = transfer(Entries(&whole, 1), &total);
    after(buffer.Get(), total);
  }
  if (actual != nullptr) *actual = total;
  return result == FILEIO_SUCCESS && sum < 0 ? Invalid() : result;
}

Entries EntriesOf(const iovec *entries, int numEntries) {
  return {entries, numEntries < 0 ? 0 : static_cast<size_t>(numEntries)};
}

}  // namespace

FileIOResult FileIO_Readv(FileIODescriptor *fd, const iovec *entries, int numEntries,
                          size_t totalSize, size_t *actual) {
  const Entries all = EntriesOf(entries, numEntries);
  return Run(
      *fd, all, totalSize, actual, Coalesce::AsConfigured, [](char *) {},
      [fd](Entries part, size_t *total) { return ReadEntries(fd, part, total); },
      [all](const char *buffer, size_t size) { Scatter(all, buffer, size); });
}

FileIOResult FileIO_Writev(FileIODescriptor *fd, const iovec *entries, int numEntries,
                           size_t totalSize, size_t *actual) {
  const Entries all = EntriesOf(entries, numEntries);
  return Run(
      *fd, all, totalSize, actual, Coalesce::AsConfigured,
      [all](char *buffer) { Gather(all, buffer); },
      [fd](Entries part, size_t *total) { return WriteEntries(fd, part, total); },
      [](const char *, size_t) {});
}

FileIOResult FileIOPwritevCoalesced(FileIODescriptor *fd, const iovec *entries, int numEntries,
                                    size_t totalSize, off_t offset, size_t *actual) {
  const Entries all = EntriesOf(entries, numEntries);
  return Run(
      *fd, all, totalSize, actual, Coalesce::Always, [all](char *buffer) { Gather(all, buffer); },
      [fd, offset](Entries part, size_t *total) { return WriteEntriesAt(fd, part, offset, total); },
      [](const char *, size_t) {});
}
