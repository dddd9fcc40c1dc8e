// fileCopy.cpp -- copying an open file with all its metadata, on macOS: fcopyfile(3) does it all.
//
// The call has no limit, but reports its progress after each piece (8 KiB to a few MiB, depending on
// the file systems) and can be told to stop there.
//
// Tests: tests/unit/darwin_test.cpp

#include <copyfile.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "lib/public/errnoKeeper.h"
#include "platform/files.h"

namespace {

struct CopyStateFreer {
  void operator()(copyfile_state_t state) const noexcept {
    const ErrnoKeeper keeper;
    copyfile_state_free(state);
  }
};
using CopyState = std::unique_ptr<_copyfile_state, CopyStateFreer>;

struct AclFreer {
  void operator()(acl_t acl) const noexcept {
    const ErrnoKeeper keeper;
    acl_free(acl);
  }
};

// Flags that keep every user, the super-user included, from changing or removing a file.
constexpr unsigned kLocks = UF_IMMUTABLE | UF_APPEND | SF_IMMUTABLE | SF_APPEND;

bool IsWithin(const struct stat &status, uint64_t limit) {
  if (static_cast<uint64_t>(status.st_size) <= limit) return true;
  errno = EFBIG;
  return false;
}

struct Bounds {
  const uint64_t limit;
  bool exceeded;
};

// Called as the copy proceeds; ends it beyond the limit.
int OnProgress(int what, int stage, copyfile_state_t state, const char *, const char *,
               void *context) {
  // Continuing after an error would retry the same write forever.
  if (stage == COPYFILE_ERR) return COPYFILE_QUIT;
  if (what != COPYFILE_COPY_DATA || stage != COPYFILE_PROGRESS) return COPYFILE_CONTINUE;
  off_t copied = 0;
  if (copyfile_state_get(state, COPYFILE_STATE_COPIED, &copied) != 0) return COPYFILE_QUIT;
  auto *const bounds = static_cast<Bounds *>(context);
  bounds->exceeded = static_cast<uint64_t>(copied) > bounds->limit;
  return bounds->exceeded ? COPYFILE_QUIT : COPYFILE_CONTINUE;
}

// The state of a copy that ends at *bounds, which it refers to; null with errno set.
CopyState BoundedCopy(Bounds *bounds) {
  CopyState state(copyfile_state_alloc());
  if (state == nullptr ||
      copyfile_state_set(state.get(), COPYFILE_STATE_STATUS_CB,
                         reinterpret_cast<const void *>(&OnProgress)) != 0 ||
      copyfile_state_set(state.get(), COPYFILE_STATE_STATUS_CTX, bounds) != 0) {
    return nullptr;
  }
  return state;
}

// Removes the locks that came with the copy.  The other flags stay: UF_COMPRESSED says how the content
// is stored.
bool Unlock(int fd, const struct stat &status) {
  const unsigned flags = status.st_flags;
  return (flags & kLocks) == 0 || fchflags(fd, flags & ~kLocks) == 0;
}

}  // namespace

// No call does that from where two files stand.
uint64_t Platform_CopyInKernel(int /*from*/, int /*to*/, uint64_t /*limit*/) {
  return 0;
}

bool Platform_CopyFileWithMetadata(int from, int to, uint64_t limit) {
  struct stat status;
  if (fstat(from, &status) != 0 || !IsWithin(status, limit)) return false;
  Bounds bounds = {limit, false};
  const CopyState state = BoundedCopy(&bounds);
  if (state == nullptr) return false;
  if (fcopyfile(from, to, state.get(), COPYFILE_ALL | COPYFILE_NOFOLLOW) != 0) {
    if (bounds.exceeded) errno = EFBIG;
    return false;
  }
  return fstat(to, &status) == 0 && Unlock(to, status) && IsWithin(status, limit);
}

// An empty list takes the place of the one that is there.
bool Platform_RemoveAccessList(int fd) {
  const std::unique_ptr<_acl, AclFreer> none(acl_init(0));
  return none != nullptr &&
         (acl_set_fd_np(fd, none.get(), ACL_TYPE_EXTENDED) == 0 || errno == ENOTSUP);
}
