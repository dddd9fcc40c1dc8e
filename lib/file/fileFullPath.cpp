// fileFullPath.cpp -- the current directory, and paths resolved as far as they exist.
//
// Tests: tests/unit/file_test.cpp

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "lib/file/fileInt.h"
#include "lib/public/err.h"
#include "lib/public/file.h"
#include "lib/public/log.h"
#include "lib/public/msg.h"
#include "lib/public/posix.h"
#include "lib/public/str.h"
#include "lib/public/unicode.h"

namespace {

constexpr size_t kCwdSize = 1024;
constexpr size_t kCwdSizeStep = 1024;

// The current directory in the host's encoding; null with errno set.
HeapStr LocalCwd() {
  for (size_t size = kCwdSize;; size += kCwdSizeStep) {
    HeapStr buffer(static_cast<char *>(Heap_SafeMalloc(size)));
    if (getcwd(buffer.get(), size) != nullptr) return buffer;
    if (errno != ERANGE) return nullptr;
  }
}

// `path` as an absolute path, not resolved.  Null if there is no current directory.
HeapStr FromRoot(const char *path) {
  if (File_IsFullPath(path)) return Heap_SafeStrdup(path);
  HeapStr cwd(File_Cwd(nullptr));
  if (cwd == nullptr || path == nullptr || path[0] == '\0') return cwd;
  return HeapStr(Str_SafeAsprintf(nullptr, "%s/%s", cwd.get(), path));
}

// In place: each run of separators becomes a single separator.
void CollapseSlashes(char *path) {
  char *to = path;
  for (const char *from = path; *from != '\0'; from++) {
    if (*from != '/' || from[1] != '/') *to++ = *from;
  }
  *to = '\0';
}

// `full`, an absolute path that does not exist, with its existing beginning resolved; null if that
// fails.
char *ResolveBeginning(const char *full) {
  char *dir;
  File_GetPathName(full, &dir, nullptr);
  const HeapStr dirOwner(dir);
  // An entry of the root has an empty directory part, which would be taken for a relative path.
  const HeapStr prefix(FileFindExistingPrefix(dir[0] == '\0' ? "/" : dir));
  const HeapStr resolved(Posix_RealPath(prefix.get()));
  if (resolved == nullptr) return nullptr;
  return File_PathJoin(resolved.get(), full + strlen(prefix.get()));
}

}  // namespace

char *FileFindExistingPrefix(const char *path) {
  HeapStr prefix = Heap_SafeStrdup(path);
  char *const text = prefix.get();
  while (text[0] != '\0') {
    if (FileAttributes(text, nullptr) == 0) return prefix.release();
    char *const separator = strrchr(text, '/');
    *(separator == nullptr ? text : separator) = '\0';
  }
  return Heap_SafeStrdup(File_IsFullPath(path) ? "/" : ".").release();
}

char *File_Cwd(const char *drive) {
  if (drive != nullptr && drive[0] != '\0') {
    Log("FILE: %s: Drive letter %s on Linux?\n", "File_Cwd", drive);
  }
  const HeapStr local = LocalCwd();
  if (local != nullptr) return Unicode_Alloc(local.get(), StringEncoding::Current);
  const ErrnoKeeper keeper;
  const char *const reason = Err_ErrnoToString(keeper.Get());
  Msg_Append(
      "@&!*@*@(msg.filePosix.getcwd)Unable to retrieve the current working directory: %s. Check if "
      "the directory has been deleted or unmounted.\n",
      reason);
  Log("FILE: %s: getcwd() failed: %s\n", "File_Cwd", reason);
  return nullptr;
}

char *File_FullPath(const char *path) {
  ErrnoKeeper keeper;
  HeapStr full = FromRoot(path);
  if (full == nullptr) {
    keeper.Set(errno);
    return nullptr;
  }
  char *const resolved = Posix_RealPath(full.get());
  if (resolved != nullptr) return resolved;
  char *const partly = ResolveBeginning(full.get());
  if (partly != nullptr) return partly;
  CollapseSlashes(full.get());
  return full.release();
}
