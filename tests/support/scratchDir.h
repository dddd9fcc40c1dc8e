// scratchDir.h -- an empty folder of a test's own, removed with all it holds at the end of the
// scope.
#pragma once

#include <filesystem>
#include <string>

#include "lib/public/fd.h"

class ScratchDir {
  std::filesystem::path path_;

 public:
  ScratchDir();
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;
  ~ScratchDir();

  // The path of `name` in the folder; without a name the folder's own.
  std::string Path(const std::string &name = "") const;

  // A new file with `content`; returns its path.
  std::string Write(const std::string &name, const std::string &content) const;
};

// The whole content of a file; empty when there is none.
std::string ReadFile(const std::string &path);

// A file without a name that holds `content`, at its beginning.
Fd FileWith(const std::string &content);

// What is in the file that is open as `fd`, from its first byte.
std::string ContentOf(const Fd &fd);
