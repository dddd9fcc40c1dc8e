// fileCopy.cpp -- copying an open file with all its metadata, on Linux: piece by piece.
//
// The kernel dictates the order: writing and changing the owner remove file capabilities, changing the
// owner clears the set-id bits, and writing sets the times.  So data come first, then owner,
// attributes, mode and times.  The access control list is an attribute (system.posix_acl_access).
//
// Tests: tests/unit/fileIO_test.cpp, tests/unit/fileTree_test.cpp

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>

#include "lib/public/heap.h"
#include "platform/files.h"

namespace {

// The most that the kernel copies in one call.
constexpr uint64_t kKernelPiece = uint64_t{1} << 30;

// ---- data --------------------------------------------------------------------------------------

bool WriteAll(int to, const char *data, size_t size, off_t offset) {
  while (size > 0) {
    const ssize_t n = pwrite(to, data, size, offset);
    if (n < 0 && errno == EINTR) continue;
    // A device that accepts no bytes and reports no error is full; asking again would never end.
    if (n == 0) errno = ENOSPC;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
    offset += n;
  }
  return true;
}

bool IsWithin(off_t size, uint64_t limit) {
  if (static_cast<uint64_t>(size) <= limit) return true;
  errno = EFBIG;
  return false;
}

// From *offset to the end of the source, which *offset is then, unless that is beyond the limit.
bool CopyByHand(int from, int to, off_t *offset, uint64_t limit) {
  constexpr size_t kPiece = size_t{256} << 10;
  const HeapArray<char> buffer = Heap_Array<char>(kPiece);
  if (buffer == nullptr) return false;
  for (;;) {
    const ssize_t n = pread(from, buffer.get(), kPiece, *offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n == 0;
    if (!IsWithin(*offset + n, limit)) return false;
    if (!WriteAll(to, buffer.get(), static_cast<size_t>(n), *offset)) return false;
    *offset += n;
  }
}

// The kernel copies as far as it can and may.  No error of its own is final: kernels, file systems and
// system call filters have many ways to say that they cannot, and any other the copy by hand meets.
bool CopyData(int from, int to, uint64_t limit) {
  off_t in = 0;
  off_t out = 0;
  while (const uint64_t piece = std::min(kKernelPiece, limit - static_cast<uint64_t>(in))) {
    const ssize_t n = copy_file_range(from, &in, to, &out, piece, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
  }
  // Only reading shows whether this is the end.  It may also be the limit, or the kernel has returned 0
  // for a file whose size it does not know.
  return CopyByHand(from, to, &in, limit) && ftruncate(to, in) == 0;
}

// ---- extended attributes -----------------------------------------------------------------------

// Names one after the other, each with its NUL.
struct Names {
  HeapArray<char> list;
  size_t size = 0;

  const char *begin() const { return list.get(); }
  const char *end() const { return list.get() + size; }
};

// Attributes of the system's administration, which may be inaccessible or meaningless here.
bool IsSystems(std::string_view name) {
  return name.starts_with("security.") || name.starts_with("trusted.") ||
         name.starts_with("system.");
}

bool Forgiven(const char *name) {
  return IsSystems(name) && (errno == EPERM || errno == EACCES || errno == ENOTSUP);
}

// No names where the file system has no attributes at all.
bool ListNames(int fd, Names *names) {
  Names found{Heap_Array<char>(XATTR_LIST_MAX)};
  if (found.list == nullptr) return false;
  const ssize_t n = flistxattr(fd, found.list.get(), XATTR_LIST_MAX);
  if (n < 0 && errno != ENOTSUP) return false;
  found.size = n < 0 ? 0 : static_cast<size_t>(n);
  *names = std::move(found);
  return true;
}

bool RemoveAttributes(int to) {
  Names names;
  if (!ListNames(to, &names)) return false;
  for (const char *name = names.begin(); name != names.end(); name += strlen(name) + 1) {
    if (fremovexattr(to, name) != 0 && errno != ENODATA && !Forgiven(name)) return false;
  }
  return true;
}

bool CopyAttributes(int from, int to) {
  Names names;
  if (!ListNames(from, &names)) return false;
  const HeapArray<char> value = Heap_Array<char>(XATTR_SIZE_MAX);
  if (value == nullptr) return false;
  for (const char *name = names.begin(); name != names.end(); name += strlen(name) + 1) {
    const ssize_t size = fgetxattr(from, name, value.get(), XATTR_SIZE_MAX);
    if (size < 0 && (errno == ENODATA || Forgiven(name))) continue;
    if (size < 0) return false;
    if (fsetxattr(to, name, value.get(), static_cast<size_t>(size), 0) != 0 && !Forgiven(name)) {
      return false;
    }
  }
  return true;
}

}  // namespace

uint64_t Platform_CopyInKernel(int from, int to, uint64_t limit) {
  uint64_t done = 0;
  while (done < limit) {
    const ssize_t n =
        copy_file_range(from, nullptr, to, nullptr, std::min(kKernelPiece, limit - done), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<uint64_t>(n);
  }
  return done;
}

bool Platform_CopyFileWithMetadata(int from, int to, uint64_t limit) {
  struct stat source;
  struct stat target;
  if (fstat(from, &source) != 0 || fstat(to, &target) != 0) return false;
  if (!S_ISREG(source.st_mode) || !S_ISREG(target.st_mode)) {
    errno = ENOTSUP;
    return false;
  }
  if (!IsWithin(source.st_size, limit)) return false;
  // Attributes can be changed only where the mode lets the owner write.
  static_cast<void>(fchmod(to, target.st_mode | S_IRUSR | S_IWUSR));
  if (!RemoveAttributes(to) || !CopyData(from, to, limit)) return false;
  const bool chowned = fchown(to, source.st_uid, source.st_gid) == 0;
  if (!CopyAttributes(from, to)) return false;
  // A set-id bit is meant for the owner of the source, so it is kept only with that owner.
  static_cast<void>(fchmod(to, source.st_mode & (chowned ? ALLPERMS : ACCESSPERMS)));
  const timespec times[] = {source.st_atim, source.st_mtim};
  static_cast<void>(futimens(to, times));
  return true;
}

bool Platform_RemoveAccessList(int fd) {
  return fremovexattr(fd, "system.posix_acl_access") == 0 || errno == ENODATA || errno == ENOTSUP;
}
