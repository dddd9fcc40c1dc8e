// scratchDir.h -- an empty folder for one test, removed with its content at the end of the scope; and
// files as strings.
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

  // The path of `name` in the folder; of the folder itself without a name.
  std::string Path(const std::string &name = "") const;

  // A new file with `content`; returns its path.
  std::string Write(const std::string &name, const std::string &content) const;
};

// The whole content of a file; "" if it cannot be read.
std::string ReadFile(const std::string &path);

// A new unnamed file with this content and offset 0.
Fd FileWith(const std::string &content);

// The whole content of the open file, whatever its offset.
std::string ContentOf(const Fd &fd);
