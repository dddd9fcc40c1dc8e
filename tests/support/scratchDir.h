// scratchDir.h -- an empty folder of a test's own, removed with all it holds at the end of the
// scope.
#pragma once

#include <filesystem>
#include <string>

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
