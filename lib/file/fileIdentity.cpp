// fileIdentity.cpp -- files told apart by device and inode, whatever names and mounts lead to them.
//
// Tests: tests/unit/fileTree_test.cpp

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "lib/file/fileInt.h"
#include "lib/public/fd.h"

namespace {

constexpr uint32_t kBuckets = 4096;

// An identity as a key of the table.
struct Key {
  char text[2 * 16 + 2];

  explicit Key(const FileIdentity &identity) {
    snprintf(text, sizeof text, "%llx.%llx", static_cast<unsigned long long>(identity.device),
             static_cast<unsigned long long>(identity.inode));
  }
};

}  // namespace

int FileIdentity::Of(int fd, FileIdentity *identity) {
  struct stat status;
  if (fstat(fd, &status) != 0) return errno;
  *identity = Of(status);
  return 0;
}

FileIdentityMap::FileIdentityMap()
    : table_(HashTable_Alloc(kBuckets, HASHTABLE_STRING_KEY | HASHTABLE_COPY_KEY, nullptr)) {}

bool FileIdentityMap::Get(const FileIdentity &identity, int64_t *value) const {
  void *found = nullptr;
  if (!HashTable_Lookup(table_.get(), Key(identity).text, &found)) return false;
  if (value != nullptr) *value = reinterpret_cast<intptr_t>(found);
  return true;
}

void FileIdentityMap::Set(const FileIdentity &identity, int64_t value) {
  HashTable_ReplaceOrInsert(table_.get(), Key(identity).text, reinterpret_cast<void *>(value));
}

int FileRequireOutside(int dir, const FileIdentity &outer) {
  FileIdentity below{};
  Fd at(openat(dir, ".", kFileOpenDirectory));
  for (;;) {
    FileIdentity here{};
    if (!at) return errno == EACCES || errno == EPERM ? 0 : errno;
    if (FileIdentity::Of(at.Get(), &here) != 0) return errno;
    if (here == outer) return errno = EINVAL;
    // The root is its own parent.
    if (here == below) return 0;
    below = here;
    at = Fd(openat(at.Get(), "..", kFileOpenDirectory));
  }
}
