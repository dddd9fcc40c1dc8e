// fileWalk.cpp -- the names in a directory, each once.
//
// Idea: a walk keeps the names that it has returned in a hash table.  That makes one name of those
//       that the system reports twice, and of those that are all replaced by the same text; and at
//       the end the table is the listing, whose strings are handed over without another copy.
// Cost: the table is one array with open addressing that doubles when it is half full; the library's
//       hashTable.h has chains of a fixed number, and took twice the time of `ls -U` for 100,000
//       names (bench/file_bench.cpp).
//
// Tests: tests/unit/file_test.cpp

#include <fcntl.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>

#include "lib/file/fileInt.h"
#include "lib/public/codeset.h"
#include "lib/public/dirStream.h"
#include "lib/public/djb2.h"
#include "lib/public/fd.h"
#include "lib/public/file.h"
#include "lib/public/log.h"
#include "lib/public/unicode.h"

namespace {

constexpr size_t kFirstSlots = 2048;

// U+FFFD three times: what takes the place of a name that is not UTF-8.
constexpr char kUndecodable[] = "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD";

// Names that are all different, each with its type as readdir(3) gives it.  Not a HashTable, whose
// number of buckets is fixed: its chains make a listing of 100,000 names take twice as long as `ls -U`,
// and a table that was rebuilt in time would still copy each name.
class NameTable {
  struct Slot {
    char *name;  // owned; null for none
    uint32_t hash;
    unsigned char type;
  };

  HeapArray<Slot> slots_;
  size_t room_ = 0;  // a power of two
  size_t count_ = 0;

  // The slot that has the name, or the free one where it belongs.
  Slot *Find(const char *name, uint32_t hash) {
    for (size_t i = hash;; i++) {
      Slot *const slot = &slots_[i & (room_ - 1)];
      if (slot->name == nullptr) return slot;
      if (slot->hash == hash && strcmp(slot->name, name) == 0) return slot;
    }
  }

  void Grow() {
    const HeapArray<Slot> old = std::move(slots_);
    const size_t oldRoom = std::exchange(room_, room_ == 0 ? kFirstSlots : 2 * room_);
    slots_.reset(static_cast<Slot *>(calloc(room_, sizeof(Slot))));
    if (slots_ == nullptr) Fatal_MemAlloc();
    for (const Slot &slot : std::span(old.get(), oldRoom)) {
      if (slot.name != nullptr) *Find(slot.name, slot.hash) = slot;
    }
  }

 public:
  NameTable() = default;
  NameTable(const NameTable &) = delete;
  NameTable &operator=(const NameTable &) = delete;
  ~NameTable() {
    for (const Slot &slot : std::span(slots_.get(), room_)) free(slot.name);
  }

  size_t Count() const { return count_; }

  // False for a name that is there already.
  bool Insert(const char *name, unsigned char type) {
    if (2 * count_ >= room_) Grow();
    const uint32_t hash = Djb2_Hash(name);
    Slot *const slot = Find(name, hash);
    if (slot->name != nullptr) return false;
    *slot = {Heap_SafeStrdup(name).release(), hash, type};
    count_++;
    return true;
  }

  // Hands over the names and, unless `types` is null, their types, in the table's order, and keeps
  // none.  Null for no names.
  HeapArray<char *> Take(HeapArray<unsigned char> *types) {
    if (count_ == 0) return nullptr;
    HeapArray<char *> names(static_cast<char **>(Heap_SafeMalloc(count_ * sizeof(char *))));
    if (types != nullptr) types->reset(static_cast<unsigned char *>(Heap_SafeMalloc(count_)));
    size_t i = 0;
    for (Slot &slot : std::span(slots_.get(), room_)) {
      if (slot.name == nullptr) continue;
      if (types != nullptr) (*types)[i] = slot.type;
      names[i++] = std::exchange(slot.name, nullptr);
    }
    return names;
  }
};

}  // namespace

struct WalkDirContext {
  HeapStr path;
  DirStream stream;
  uint64_t left = UINT64_MAX;  // entries that may still be read
  NameTable names{};
};

namespace {

struct WalkEnder {
  void operator()(WalkDirContext *context) const noexcept { File_WalkDirectoryEnd(context); }
};
using Walk = std::unique_ptr<WalkDirContext, WalkEnder>;

// Null when there is no stream.
WalkDirContext *StartWalk(const char *path, DirStream stream) {
  if (stream == nullptr) return nullptr;
  return Heap_New<WalkDirContext>(Heap_SafeStrdup(path), std::move(stream)).release();
}

// A stream over the directory open as `dir`, from its beginning: the two share one position.  Null
// with errno set.
DirStream OpenStream(int dir) {
  DirStream stream = DirStreamOf(Fd(fcntl(dir, F_DUPFD_CLOEXEC, 0)));
  if (stream != nullptr) rewinddir(stream.get());
  return stream;
}

bool IsDots(const char *name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// `name`, or what stands for it when it is not UTF-8.
const char *TextOfName(const char *path, const char *name) {
  if (CodeSet_IsValidUTF8(name)) return name;
  const HeapStr escaped(Unicode_EscapeBuffer(name, -1, StringEncoding::Current));
  // The two arguments are swapped on purpose: log parsers rely on it.
  Log("%s: file '%s' in directory '%s' cannot be converted to UTF8\n", "File_WalkDirectoryNext",
      path, escaped.get());
  return kUndecodable;
}

// Goes to the end of the walk.  False with errno; EFBIG for more entries than `limit`.
bool Finish(WalkDirContext *context, uint64_t limit) {
  context->left = limit;
  while (File_WalkDirectoryNext(context, nullptr)) continue;
  return errno == 0;
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
    // Counted before it is logged: names that all become the same text have an end, too.
    if (context->left-- == 0) {
      errno = EFBIG;
      return false;
    }
    const char *const text = TextOfName(context->path.get(), entry->d_name);
    if (!context->names.Insert(text, entry->d_type)) continue;
    if (name != nullptr) *name = Heap_SafeStrdup(text).release();
    return true;
  }
}

void File_WalkDirectoryEnd(WalkDirContext *context) {
  if (context != nullptr) HeapDeleter()(context);
}

int File_ListDirectory(const char *path, char ***names) {
  const Walk walk(File_WalkDirectoryStart(path));
  if (walk == nullptr || !Finish(walk.get(), UINT64_MAX)) return -1;
  if (names != nullptr) *names = walk->names.Take(nullptr).release();
  return static_cast<int>(walk->names.Count());
}

bool FileNames::Take(WalkDirContext *context, uint64_t limit) {
  Clear();
  const Walk walk(context);
  if (walk == nullptr || !Finish(walk.get(), limit)) return false;
  names_ = walk->names.Take(&types_);
  count_ = static_cast<int>(walk->names.Count());
  return true;
}

bool FileNames::List(const char *path) {
  return Take(File_WalkDirectoryStart(path), UINT64_MAX);
}

bool FileNames::ListAt(int dir, const char *path, uint64_t limit) {
  return Take(StartWalk(path, OpenStream(dir)), limit);
}

void FileNames::Clear() noexcept {
  const ErrnoKeeper keeper;
  for (char *const name : *this) free(name);
  names_ = nullptr;
  types_ = nullptr;
  count_ = 0;
}
