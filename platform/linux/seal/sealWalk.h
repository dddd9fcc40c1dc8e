// sealWalk.h -- visits everything in a directory bundle that a seal covers.
#pragma once

#include <climits>
#include <cstddef>

inline constexpr char kSealFile[] = "Contents/_CodeSignature/CodeSeal";
inline constexpr char kSealAttribute[] = "user.zephrin.codeseal";
inline constexpr char kSealSinglePath[] = ".";  // of the only item in a file's seal
inline constexpr int kSealMaxDepth = 32;        // nested directories

// Whether the open item is a directory.
[[nodiscard]] bool SealIsDirectory(int item);

struct SealFound {
  const char *path;    // below the bundle
  int fd;              // a regular file; -1 for a link
  const char *target;  // of a link; null for a file
};

// False ends the walk.
using SealVisit = bool (*)(void *context, const SealFound &found);

class SealWalk {
  SealVisit visit_;
  void *context_;
  size_t entries_ = 0;
  size_t length_ = 0;         // of path_
  char path_[PATH_MAX] = "";  // of the current entry

 public:
  SealWalk(SealVisit visit, void *context) : visit_(visit), context_(context) {}

  // Visits every regular file and symbolic link below the directory `dirFd` except kSealFile, in any
  // order.  Directories are not visited themselves.  False if the visitor returned false; or, with errno
  // set, after a failure: for example ENOTSUP for an entry of another kind, ELOOP below kSealMaxDepth,
  // EFBIG for too many entries.  The descriptor's offset is neither used nor changed.
  [[nodiscard]] bool Below(int dirFd);

  // The number of files, links and directories found, kSealFile included.
  size_t Entries() const { return entries_; }

  // Where the walk ended.
  const char *Path() const { return path_; }

 private:
  bool Directory(int fd, int depth);
  bool Entry(int dirFd, const char *name, int depth);
  bool Subdirectory(int dirFd, const char *name, int depth);
  bool File(int dirFd, const char *name);
  bool Link(int dirFd, const char *name);
};
