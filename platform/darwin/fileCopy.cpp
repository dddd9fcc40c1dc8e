// fileCopy.cpp -- copying an open file with all its metadata, on macOS: one call does it, and more.

#include <copyfile.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "errnoKeeper.h"
#include "platform/files.h"

namespace {

struct AclFreer {
  void operator()(acl_t acl) const noexcept {
    const ErrnoKeeper keeper;
    acl_free(acl);
  }
};

// Flags that keep everybody, the super-user included, from changing and removing a file.
constexpr unsigned kLocks = UF_IMMUTABLE | UF_APPEND | SF_IMMUTABLE | SF_APPEND;

// Takes away the locks that came with the copy.  The other flags stay: UF_COMPRESSED is how the
// content is stored.
bool Unlock(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) return false;
  const unsigned flags = status.st_flags;
  return (flags & kLocks) == 0 || fchflags(fd, flags & ~kLocks) == 0;
}

}  // namespace

bool Platform_CopyFileWithMetadata(int from, int to) {
  return fcopyfile(from, to, nullptr, COPYFILE_ALL | COPYFILE_NOFOLLOW) == 0 && Unlock(to);
}

// An empty list takes the place of the one that is there.
bool Platform_RemoveAccessList(int fd) {
  const std::unique_ptr<_acl, AclFreer> none(acl_init(0));
  return none != nullptr &&
         (acl_set_fd_np(fd, none.get(), ACL_TYPE_EXTENDED) == 0 || errno == ENOTSUP);
}
