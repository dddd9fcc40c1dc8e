// fileDescent.cpp -- a way down a directory tree with at most two directories open.
//
// Idea:       the directory at hand and its parent stay open, so going down one level and up again
//             costs nothing.  Further up the way is "..", and the directory found there must be the
//             one the way down led through.  Where ".." cannot be right (a directory entered
//             through a link) or is gone (a directory removed meanwhile), the way is opened again
//             by its names from the top.
// Invariants: 1. Nothing above the top is ever reached: a directory that is not the expected one,
//             by device and inode, is closed again.
//             2. Links are followed only with followLinks.
// Tests: tests/unit/fileTree_test.cpp

#include "lib/file/fileDescent.h"

#include <cerrno>
#include <cstring>

namespace {

constexpr char kSource[] = "lib/file/fileDescent";

}  // namespace

void FileDescent::CutPath(size_t length) {
  path_.size = length;
  DynBuf_SafeAppend(&path_, "", 1, kSource, __LINE__);
}

// Makes `dir`, whose path is in path_, the directory at hand.
int FileDescent::Push(Fd dir) {
  Step step{.identity = {}, .pathLength = path_.size - 1};
  const int error = FileIdentity::Of(dir.Get(), &step.identity);
  if (error != 0) return error;
  DynBuf_SafeAppend(&steps_, &step, sizeof step, kSource, __LINE__);
  above_ = std::move(here_);
  here_ = std::move(dir);
  return 0;
}

int FileDescent::Begin(Fd top, const char *path) {
  topPath_ = path;
  const HeapStr stripped(File_StripSlashes(path));
  DynBuf_SafeAppend(&path_, stripped.get(), strlen(stripped.get()) + 1, kSource, __LINE__);
  return Push(std::move(top));
}

int FileDescent::Down(Fd dir, const char *name) {
  const size_t length = path_.size - 1;
  path_.size = length;
  DynBuf_SafeAppend(&path_, "/", 1, kSource, __LINE__);
  DynBuf_SafeAppend(&path_, name, strlen(name) + 1, kSource, __LINE__);
  const int error = Push(std::move(dir));
  if (error != 0) CutPath(length);
  return error;
}

int FileDescent::Arrive(Fd dir) {
  FileIdentity identity;
  if (!dir || FileIdentity::Of(dir.Get(), &identity) != 0) return errno;
  if (identity != Identity()) return errno = ESTALE;
  here_ = std::move(dir);
  return 0;
}

int FileDescent::Reopen() {
  const int flags = kFileOpenDirectory | (followLinks_ ? 0 : O_NOFOLLOW);
  Fd dir(open(topPath_, kFileOpenDirectory));
  for (const char *rest = path_.data + Steps()[0].pathLength; dir && *rest == '/';) {
    const size_t length = strcspn(++rest, "/");
    const HeapStr name = Heap_SafeStrndup(rest, length);
    dir = Fd(openat(dir.Get(), name.get(), flags));
    rest += length;
  }
  return Arrive(std::move(dir));
}

int FileDescent::Up() {
  steps_.size -= sizeof(Step);
  CutPath(Steps()[Depth() - 1].pathLength);
  if (above_) {
    here_ = std::move(above_);
    return 0;
  }
  const int error = Arrive(Fd(openat(here_.Get(), "..", kFileOpenDirectory)));
  return error == ENOENT || (error != 0 && followLinks_) ? Reopen() : error;
}

bool FileDescent::Passes(const FileIdentity &identity) const {
  for (size_t i = 0; i < Depth(); i++) {
    if (Steps()[i].identity == identity) return true;
  }
  return false;
}
