#include "tests/support/sysFault.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

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

// NOLINTBEGIN(bugprone-macro-parentheses): types and whole lists.
// Symbol, the name it counts as, its result, what a failure returns, parameters, arguments.
#define WRAP(symbol, name, Result, failure, parameters, arguments) \
  extern "C" Result __real_##symbol parameters;                    \
  extern "C" Result __wrap_##symbol parameters;                    \
  Result __wrap_##symbol parameters {                              \
    return MustFail(name) ? failure : __real_##symbol arguments;   \
  }
#define WRAP_INT(symbol, parameters, arguments) \
  WRAP(symbol, #symbol, int, -1, parameters, arguments)
#define WRAP_SIZE(symbol, parameters, arguments) \
  WRAP(symbol, #symbol, ssize_t, -1, parameters, arguments)

// NOLINTEND(bugprone-macro-parentheses)

using Vector = const struct iovec *;
WRAP_INT(mkdir, (const char *path, mode_t mode), (path, mode))
WRAP_INT(unlink, (const char *path), (path))
WRAP_INT(unlinkat, (int dir, const char *path, int flags), (dir, path, flags))
WRAP_INT(rmdir, (const char *path), (path))
WRAP_INT(rename, (const char *from, const char *to), (from, to))
WRAP_INT(link, (const char *from, const char *to), (from, to))
WRAP_INT(symlink, (const char *target, const char *path), (target, path))
WRAP_INT(stat, (const char *path, struct stat *out), (path, out))
WRAP_INT(lstat, (const char *path, struct stat *out), (path, out))
WRAP_INT(fstat, (int fd, struct stat *out), (fd, out))
WRAP_INT(fstatat, (int dir, const char *path, struct stat *out, int flags), (dir, path, out, flags))
WRAP_INT(ftruncate, (int fd, off_t length), (fd, length))
WRAP_INT(fchmod, (int fd, mode_t mode), (fd, mode))
WRAP_INT(fchown, (int fd, uid_t user, gid_t group), (fd, user, group))
WRAP_INT(fsync, (int fd), (fd))
WRAP_SIZE(read, (int fd, void *to, size_t size), (fd, to, size))
WRAP_SIZE(write, (int fd, const void *from, size_t size), (fd, from, size))
WRAP_SIZE(pwrite, (int fd, const void *from, size_t size, off_t at), (fd, from, size, at))
WRAP_SIZE(readv, (int fd, Vector vector, int count), (fd, vector, count))
WRAP_SIZE(writev, (int fd, Vector vector, int count), (fd, vector, count))
WRAP_SIZE(readlink, (const char *path, char *to, size_t size), (path, to, size))
WRAP(opendir, "opendir", DIR *, nullptr, (const char *path), (path))
WRAP(fdopendir, "fdopendir", DIR *, nullptr, (int fd), (fd))
WRAP(readdir, "readdir", dirent *, nullptr, (DIR * stream), (stream))
WRAP(getcwd, "getcwd", char *, nullptr, (char *to, size_t size), (to, size))
WRAP(realpath, "realpath", char *, nullptr, (const char *path, char *to), (path, to))
// The same, where the compiler knows the size of the buffer.
WRAP(__realpath_chk, "realpath", char *, nullptr, (const char *path, char *to, size_t size),
     (path, to, size))
WRAP(__read_chk, "read", ssize_t, -1, (int fd, void *to, size_t size, size_t room),
     (fd, to, size, room))

// Calls with an argument that is there or not.
extern "C" {
int __real_open(const char *path, int flags, ...);
int __real_openat(int dir, const char *path, int flags, ...);
int __real_fcntl(int fd, int command, ...);
int __real_close(int fd);

int __wrap_open(const char *path, int flags, ...);
int __wrap_open(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  return MustFail("open") ? -1 : __real_open(path, flags, mode);
}

int __wrap_openat(int dir, const char *path, int flags, ...);
int __wrap_openat(int dir, const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  return MustFail("openat") ? -1 : __real_openat(dir, path, flags, mode);
}

int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
  va_list args;
  va_start(args, command);
  void *const argument = va_arg(args, void *);
  va_end(args);
  return MustFail("fcntl") ? -1 : __real_fcntl(fd, command, argument);
}

int __wrap_close(int fd);
int __wrap_close(int fd) {
  const bool fails = MustFail("close");
  const int error = errno;
  const int result = __real_close(fd);
  if (!fails) return result;
  errno = error;
  return -1;
}
}

SysFault::SysFault(const std::string &call, int nth, int error, std::function<void()> before) {
  plan.call = call;
  plan.error = error;
  plan.before = std::move(before);
  plan.fired.clear();
  plan.left = nth;
}
SysFault::~SysFault() {
  Disarm();
}
bool SysFault::Fired() const {
  return !plan.fired.empty();
}
std::string SysFault::Call() const {
  return plan.fired;
}
void SysFault::Disarm() {
  plan.left = 0;
}
