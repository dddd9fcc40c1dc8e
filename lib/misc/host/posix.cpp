// posix.cpp -- realpath(3) and readlink(2) between UTF-8 strings.
//
// A path from the caller that is not UTF-8 is ERANGE, a result of the system that is not is EILSEQ.
// All clean-up keeps errno, so the caller sees what the system call left.
//
// Tests: tests/unit/hostServices_test.cpp

#include "lib/public/posix.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lib/public/codeset.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/heap.h"

namespace {

constexpr size_t kLinkSize = 2048;
constexpr size_t kLinkSizeStep = 1024;

// Null with errno ERANGE when `path` is not UTF-8.  On success errno is unchanged.
HeapStr ToLocal(const char *path) {
  ErrnoKeeper keeper;
  char *local = nullptr;
  if (!CodeSet_Utf8ToCurrent(path, strlen(path), &local, nullptr)) keeper.Set(ERANGE);
  return HeapStr(local);
}

// Null with errno EILSEQ when the bytes are not UTF-8.
char *FromLocal(const char *bytes, size_t length) {
  char *string = nullptr;
  if (!CodeSet_CurrentToUtf8(bytes, length, &string, nullptr)) errno = EILSEQ;
  return string;
}

}  // namespace

char *Posix_RealPath(const char *path) {
  const int before = errno;
  const HeapStr local = ToLocal(path);
  if (local == nullptr) return nullptr;
  char resolved[PATH_MAX];
  if (realpath(local.get(), resolved) == nullptr) return nullptr;
  // A successful realpath may leave an errno behind, from looking at components that are not links.
  errno = before;
  return FromLocal(resolved, strlen(resolved));
}

char *Posix_ReadLink(const char *path) {
  const HeapStr local = ToLocal(path);
  if (local == nullptr) return nullptr;
  const HeapStr target(Posix_ReadLinkAt(AT_FDCWD, local.get()));
  return target == nullptr ? nullptr : FromLocal(target.get(), strlen(target.get()));
}

char *Posix_ReadLinkAt(int dir, const char *path) {
  // A target that fills the buffer may have been cut; one that leaves room is complete.
  for (size_t size = kLinkSize;; size += kLinkSizeStep) {
    HeapStr target(static_cast<char *>(Heap_SafeMalloc(size)));
    const ssize_t length = readlinkat(dir, path, target.get(), size);
    if (length < 0) return nullptr;
    if (static_cast<size_t>(length) < size) {
      target.get()[length] = '\0';
      return target.release();
    }
  }
}
