// fileDescent.h -- a way down a directory tree, one open directory at a time.
//
// For walks that must not be led elsewhere by changes to the tree: each step down is a directory
// that the caller opened as an entry of the one before, and each step up arrives at the very
// directory that the way down led through, or fails.
#pragma once

#include <cstddef>

#include "lib/file/fileInt.h"
#include "lib/public/dynbuf.h"
#include "lib/public/fd.h"

class FileDescent {
  struct Step {
    FileIdentity identity;
    size_t pathLength;
  };

  const bool followLinks_;
  const char *topPath_ = nullptr;
  ScopedDynBuf path_;   // of the directory at hand, with its NUL; without slashes after the top
  ScopedDynBuf steps_;  // a Step for each directory from the top to the one at hand
  Fd here_;
  Fd above_;  // the parent of the one at hand, if it is still open

  Step *Steps() const { return reinterpret_cast<Step *>(steps_.data); }
  size_t Depth() const { return steps_.size / sizeof(Step); }
  void CutPath(size_t length);
  [[nodiscard]] int Push(Fd dir);
  [[nodiscard]] int Arrive(Fd dir);
  [[nodiscard]] int Reopen();

 public:
  // followLinks: directories may have been entered through symbolic links.
  explicit FileDescent(bool followLinks) : followLinks_(followLinks) {}
  FileDescent(const FileDescent &) = delete;
  FileDescent &operator=(const FileDescent &) = delete;

  // All errno-style.  On failure of the first two, nothing has changed.
  //
  // Begins at the directory open as `top`; `path` (not null) leads to it, and outlives this object.
  [[nodiscard]] int Begin(Fd top, const char *path);
  // Goes to `dir`, which the entry `name` of the directory at hand has led to.
  [[nodiscard]] int Down(Fd dir, const char *name);
  // Goes back to the directory above, which must exist.  ESTALE when the way up does not lead there
  // any more, ENOENT when it has been removed; the object then only serves for another Up.
  [[nodiscard]] int Up();

  int Here() const { return here_.Get(); }
  const FileIdentity &Identity() const { return Steps()[Depth() - 1].identity; }
  // Whether it is the directory at hand or one of those above it, up to the top.
  bool Passes(const FileIdentity &identity) const;

  // For messages: the path of the directory at hand, good until the next step, and of an entry.
  const char *Path() const { return Depth() < 2 ? topPath_ : path_.data; }
  HeapStr PathOf(const char *name) const { return HeapStr(File_PathJoin(Path(), name)); }
};

// The names that a walk has yet to visit in one directory of its way.
struct FileLevel {
  FileLevel *above;
  FileNames names;
  int next = 0;
  int64_t tally = 0;  // the walk's own sum or error

  // The next name, or null after the last.
  const char *Next() { return next < names.Count() ? names[next++] : nullptr; }
  const char *LastName() const { return names[next - 1]; }
};

// A level for each directory of the way, on the heap: neither the stack nor the length of paths
// bounds the depth.
class FileLevels {
  FileLevel *last_ = nullptr;

 public:
  FileLevels() = default;
  FileLevels(const FileLevels &) = delete;
  FileLevels &operator=(const FileLevels &) = delete;
  ~FileLevels() {
    while (last_ != nullptr) Pop();
  }

  bool Empty() const { return last_ == nullptr; }
  FileLevel &Last() const { return *last_; }
  void Push(FileNames names) { last_ = Heap_New<FileLevel>(last_, std::move(names)).release(); }
  void Pop() {
    const HeapPtr<FileLevel> gone(last_);
    last_ = gone->above;
  }
};
