// fileDirectory.cpp -- making directories.
//
// Tests: tests/unit/file_test.cpp

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "lib/file/fileInt.h"
#include "lib/public/file.h"
#include "lib/public/log.h"

namespace {

constexpr int kDefaultMode = 0777;

// Errno-style: makes the directory or accepts an existing one; *created says which.
int MakeOrAccept(const char *path, int mode, bool *created) {
  const int made = FileCreateDirectory(path, mode);
  *created = made == 0;
  return made == EEXIST ? FileRequireDirectory(path) : made;
}

// The end of the next longer beginning of `path` that is to be a directory; null after the last.
// The root always exists, and hosts differ in the errno for creating it.
const char *NextLevel(const char *path, const char *end) {
  if (end == path) end += strspn(path, "/");
  if (*end == '\0') return nullptr;
  const char *const separator = strchr(end + 1, '/');
  return separator != nullptr ? separator : end + strlen(end);
}

}  // namespace

int FileCreateDirectory(const char *path, int mode) {
  if (path == nullptr) return errno = EFAULT;
  return mkdir(path, static_cast<mode_t>(mode)) == 0 ? 0 : errno;
}

bool File_CreateDirectoryMode(const char *path, int mode) {
  return FileCreateDirectory(path, mode) == 0;
}

bool File_CreateDirectory(const char *path) {
  return File_CreateDirectoryMode(path, kDefaultMode);
}

bool File_CreateDirectoryIfAbsent(const char *path, int mode) {
  bool created;
  return MakeOrAccept(path, mode, &created) == 0;
}

bool File_EnsureDirectory(const char *path) {
  return File_CreateDirectoryIfAbsent(path, kDefaultMode);
}

bool File_CreateDirectoryHierarchyEx(const char *path, int mode, char **topmostCreated) {
  if (topmostCreated != nullptr) *topmostCreated = nullptr;
  if (path == nullptr) return true;
  const HeapStr prefix = Heap_SafeStrdup(path);
  const char *end = path;
  while ((end = NextLevel(path, end)) != nullptr) {
    // Cut for this level, and restored for the next.
    char *const cut = prefix.get() + (end - path);
    *cut = '\0';
    bool created;
    const int error = MakeOrAccept(prefix.get(), mode, &created);
    if (error != 0) {
      const ErrnoKeeper keeper(error);
      Log("FILE: %s: Failure on '%s'. Error = %d\n", "File_CreateDirectoryHierarchyEx",
          prefix.get(), error);
      return false;
    }
    if (created && topmostCreated != nullptr && *topmostCreated == nullptr) {
      *topmostCreated = Heap_SafeStrdup(prefix.get()).release();
    }
    *cut = *end;
  }
  return true;
}
