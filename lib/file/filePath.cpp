// filePath.cpp -- paths split and joined as texts, without access to the file system.
//
// Tests: tests/unit/file_test.cpp

#include <cstring>

#include "lib/file/fileInt.h"
#include "lib/public/file.h"
#include "lib/public/str.h"

namespace {

char *NewString(const char *begin, const char *end) {
  return Heap_SafeStrndup(begin, static_cast<size_t>(end - begin)).release();
}

// `end` without the separators before it.
const char *BeforeSlashes(const char *begin, const char *end) {
  while (end != begin && end[-1] == '/') end--;
  return end;
}

// Where the last component begins; the path's end when that is a separator.
const char *BaseOf(const char *path) {
  const char *const separator = strrchr(path, '/');
  return separator == nullptr ? path : separator + 1;
}

}  // namespace

bool File_IsFullPath(const char *path) {
  return path != nullptr && path[0] == '/';
}

void File_SplitName(const char *path, char **volume, char **dir, char **base) {
  const char *const begin = BaseOf(path);
  if (volume != nullptr) *volume = NewString(path, path);
  if (dir != nullptr) *dir = NewString(path, begin);
  if (base != nullptr) *base = NewString(begin, begin + strlen(begin));
}

void File_GetPathName(const char *path, char **pathName, char **base) {
  const char *const begin = BaseOf(path);
  if (pathName != nullptr) *pathName = NewString(path, BeforeSlashes(path, begin));
  if (base != nullptr) *base = NewString(begin, begin + strlen(begin));
}

char *File_StripSlashes(const char *path) {
  return NewString(path, BeforeSlashes(path, path + strlen(path)));
}

char *File_PathJoin(const char *dir, const char *name) {
  const HeapStr stripped(File_StripSlashes(dir));
  return Str_SafeAsprintf(nullptr, "%s/%s", stripped.get(), name + strspn(name, "/"));
}
