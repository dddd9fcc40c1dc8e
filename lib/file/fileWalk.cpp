// fileWalk.cpp -- the names in a directory, each once.
//
// Idea:  a walk remembers the names that it has returned in a hash table.  That makes a name that
//        the system reports twice -- or several that cannot be told apart once they are text --
//        one name, and at the end the table is the listing.
// Cost:  the table has 2048 chains, so the time per name grows with directories far above that
//        many names; bench/file_bench.cpp has the numbers.

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "lib/file/fileInt.h"
#include "lib/public/codeset.h"
#include "lib/public/dirStream.h"
#include "lib/public/fd.h"
#include "lib/public/file.h"
#include "lib/public/hashTable.h"
#include "lib/public/log.h"
#include "lib/public/unicode.h"

namespace {

constexpr uint32_t kNameBuckets = 2048;

// U+FFFD three times: what a name that is not UTF-8 is called.
constexpr char kUndecodable[] = "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD";

}  // namespace

struct WalkDirContext {
  HeapStr path;
  DirStream stream;
  HashTableOwner names;
};

namespace {

struct WalkEnder {
  void operator()(WalkDirContext *context) const noexcept { File_WalkDirectoryEnd(context); }
};
using Walk = std::unique_ptr<WalkDirContext, WalkEnder>;

// Null when there is no stream.
WalkDirContext *StartWalk(const char *path, DirStream stream) {
  if (stream == nullptr) return nullptr;
  return new (Heap_SafeMalloc(sizeof(WalkDirContext)))
      WalkDirContext{Heap_SafeStrdup(path), std::move(stream),
                     HashTableOwner(HashTable_Alloc(
                         kNameBuckets, HASHTABLE_STRING_KEY | HASHTABLE_COPY_KEY, nullptr))};
}

// A stream of its own for the directory that is open as `dir`; null with errno set.
DirStream OpenStream(int dir) {
  return DirStreamOf(Fd(fcntl(dir, F_DUPFD_CLOEXEC, 0)));
}

bool IsDots(const char *name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// `name`, or what stands for it when it is not UTF-8.
const char *TextOfName(const char *path, const char *name) {
  if (CodeSet_IsValidUTF8(name)) return name;
  const HeapStr escaped(Unicode_EscapeBuffer(name, -1, StringEncoding::Current));
  // The directory in the place of the file and the other way round: whoever reads these records by
  // machine expects them so.
  Log("%s: file '%s' in directory '%s' cannot be converted to UTF8\n", "File_WalkDirectoryNext",
      path, escaped.get());
  return kUndecodable;
}

// What is left of the walk, in the table's order.  The number of names, or -1 with errno set; then
// *names is left alone.
int ListRest(WalkDirContext *context, char ***names, uint64_t limit) {
  uint64_t count = 0;
  while (File_WalkDirectoryNext(context, nullptr)) {
    if (++count <= limit) continue;
    errno = EFBIG;
    return -1;
  }
  if (errno != 0) return -1;
  if (names == nullptr) return static_cast<int>(count);
  *names = nullptr;
  if (count == 0) return 0;
  *names = static_cast<char **>(Heap_SafeMalloc(count * sizeof(char *)));
  char **next = *names;
  HashTable_ForEach(
      context->names.get(),
      [](const void *key, void *, void *place) {
        char **&slot = *static_cast<char ***>(place);
        *slot++ = Heap_SafeStrdup(static_cast<const char *>(key)).release();
        return 0;
      },
      &next);
  return static_cast<int>(count);
}

int ListAll(Walk walk, char ***names, uint64_t limit = UINT64_MAX) {
  return walk == nullptr ? -1 : ListRest(walk.get(), names, limit);
}

}  // namespace

WalkDirContext *File_WalkDirectoryStart(const char *path) {
  if (path != nullptr) return StartWalk(path, DirStream(opendir(path)));
  errno = EFAULT;
  return nullptr;
}

bool File_WalkDirectoryNext(WalkDirContext *context, char **name) {
  for (;;) {
    errno = 0;
    const dirent *const entry = readdir(context->stream.get());
    if (entry == nullptr) return false;
    if (IsDots(entry->d_name)) continue;
    const char *const text = TextOfName(context->path.get(), entry->d_name);
    if (!HashTable_Insert(context->names.get(), text, nullptr)) continue;
    if (name != nullptr) *name = Heap_SafeStrdup(text).release();
    return true;
  }
}

void File_WalkDirectoryEnd(WalkDirContext *context) {
  if (context == nullptr) return;
  context->~WalkDirContext();
  HeapFreer()(context);
}

int File_ListDirectory(const char *path, char ***names) {
  return ListAll(Walk(File_WalkDirectoryStart(path)), names);
}

bool FileNames::List(const char *path) {
  Clear();
  count_ = File_ListDirectory(path, &names_);
  if (count_ >= 0) return true;
  count_ = 0;
  return false;
}

bool FileNames::ListAt(int dir, const char *path, uint64_t limit) {
  Clear();
  count_ = ListAll(Walk(StartWalk(path, OpenStream(dir))), &names_, limit);
  if (count_ >= 0) return true;
  count_ = 0;
  return false;
}

void FileNames::Clear() noexcept {
  const ErrnoKeeper keeper;
  for (int i = 0; i < count_; i++) free(names_[i]);
  free(names_);
  names_ = nullptr;
  count_ = 0;
}
