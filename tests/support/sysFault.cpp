#include "tests/support/sysFault.h"

#include <dirent.h>
#include <sys/uio.h>

#include <atomic>

#include "tests/support/test.h"

namespace {

struct Plan {
  std::string call;
  std::atomic<int> left{0};
  int error = 0;
  std::function<void()> before;
  std::string fired;
};
Plan plan;

bool MustFail(const char *call) {
  if (plan.left <= 0 || (!plan.call.empty() && plan.call != call)) return false;
  if (plan.left.fetch_sub(1) != 1) return false;
  plan.fired = call;
  plan.before();
  if (plan.error == 0) return false;
  errno = plan.error;
  return true;
}

}  // namespace

// NOLINTBEGIN(bugprone-macro-parentheses): the arguments are types and parenthesised lists.
// Symbol, the name that it counts as, type of the result, result of a failure, parameters, arguments.
#define WRAP(symbol, name, Result, failure, parameters, arguments) \
  extern "C" Result __real_##symbol parameters;                    \
  extern "C" Result __wrap_##symbol parameters {                   \
    return MustFail(name) ? failure : __real_##symbol arguments;   \
  }
#define WRAP_INT(symbol, parameters, arguments) \
  WRAP(symbol, #symbol, int, -1, parameters, arguments)
// NOLINTEND(bugprone-macro-parentheses)

WRAP_INT(mkdir, (const char *path, mode_t mode), (path, mode))
WRAP_INT(mkdirat, (int dir, const char *path, mode_t mode), (dir, path, mode))
WRAP_INT(unlink, (const char *path), (path))
WRAP_INT(unlinkat, (int dir, const char *path, int flags), (dir, path, flags))
WRAP_INT(rmdir, (const char *path), (path))
WRAP_INT(rename, (const char *from, const char *to), (from, to))
WRAP_INT(symlink, (const char *target, const char *path), (target, path))
WRAP_INT(symlinkat, (const char *target, int dir, const char *path), (target, dir, path))
WRAP_INT(ftruncate, (int fd, off_t size), (fd, size))
WRAP_INT(stat, (const char *path, struct stat *out), (path, out))
WRAP_INT(lstat, (const char *path, struct stat *out), (path, out))
WRAP_INT(fstat, (int fd, struct stat *out), (fd, out))
WRAP_INT(fstatat, (int dir, const char *path, struct stat *out, int flags), (dir, path, out, flags))
WRAP_INT(fsync, (int fd), (fd))
WRAP(read, "read", ssize_t, -1, (int fd, void *to, size_t size), (fd, to, size))
WRAP(write, "write", ssize_t, -1, (int fd, const void *from, size_t size), (fd, from, size))
WRAP(readv, "readv", ssize_t, -1, (int fd, const iovec *to, int count), (fd, to, count))
WRAP(writev, "writev", ssize_t, -1, (int fd, const iovec *from, int count), (fd, from, count))
WRAP(pwrite, "pwrite", ssize_t, -1, (int fd, const void *from, size_t size, off_t offset),
     (fd, from, size, offset))
WRAP(readlinkat, "readlinkat", ssize_t, -1, (int dir, const char *path, char *to, size_t size),
     (dir, path, to, size))
WRAP(opendir, "opendir", DIR *, nullptr, (const char *path), (path))
WRAP(fdopendir, "fdopendir", DIR *, nullptr, (int fd), (fd))
WRAP(readdir, "readdir", dirent *, nullptr, (DIR * stream), (stream))
WRAP(realpath, "realpath", char *, nullptr, (const char *path, char *to), (path, to))
// What -D_FORTIFY_SOURCE calls instead if the size of the buffer is known.
WRAP(__realpath_chk, "realpath", char *, nullptr, (const char *path, char *to, size_t size),
     (path, to, size))
WRAP(__read_chk, "read", ssize_t, -1, (int fd, void *to, size_t size, size_t room),
     (fd, to, size, room))
// What it calls instead if there is no mode, and flags that are not constant.
WRAP(__openat_2, "openat", int, -1, (int dir, const char *path, int flags), (dir, path, flags))
// The last argument may be missing.  Passing on whatever is in its register is harmless: nobody reads it.
WRAP_INT(open, (const char *path, int flags, mode_t mode), (path, flags, mode))
WRAP_INT(openat, (int dir, const char *path, int flags, mode_t mode), (dir, path, flags, mode))
WRAP_INT(fcntl, (int fd, int command, void *argument), (fd, command, argument))

extern "C" int __real_close(int fd);
extern "C" int __wrap_close(int fd) {
  const bool fails = MustFail("close");
  const int error = errno;
  const int result = __real_close(fd);
  if (!fails) return result;
  errno = error;
  return -1;
}

SysFault::SysFault(const std::string &call, int nth, int error, std::function<void()> before) {
  plan.call = call;
  plan.error = error;
  plan.before = std::move(before);
  plan.fired.clear();
  plan.left = nth;
}
std::string SysFault::Call() const {
  return plan.fired;
}
void SysFault::Disarm() {
  plan.left = 0;
}
