// fileCopy.cpp -- copying an open file with all its metadata, on macOS: one call does it.

#include <copyfile.h>
#include <sys/acl.h>

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

}  // namespace

bool Platform_CopyFileWithMetadata(int from, int to) {
  return fcopyfile(from, to, nullptr, COPYFILE_ALL | COPYFILE_NOFOLLOW) == 0;
}

// An empty list takes the place of the one that is there.
bool Platform_RemoveAccessList(int fd) {
  const std::unique_ptr<_acl, AclFreer> none(acl_init(0));
  return none != nullptr &&
         (acl_set_fd_np(fd, none.get(), ACL_TYPE_EXTENDED) == 0 || errno == ENOTSUP);
}
