// sandboxed.h -- benchmarks of the product as installed.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/product.h"

[[noreturn]] inline void Die(const char *what) {
  perror(what);
  exit(EXIT_FAILURE);
}

inline std::filesystem::path BuildFolder() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
}

// Starts the program over inside the sandbox unless it is there already, with what product.h asks
// for in its environment.
inline void EnterSandbox(char *argv[], const char *supportFolder) {
  setenv("LUMEN_BUILD", BuildFolder().c_str(), 1);
  setenv("LUMEN_SUPPORT", supportFolder, 1);
  if (access(kSandboxMark, F_OK) == 0) return;
  const std::string sandbox = std::string(supportFolder) + "/sandbox";
  std::vector<char *> words = {const_cast<char *>(sandbox.c_str())};
  for (; *argv != nullptr; argv++) words.push_back(*argv);
  words.push_back(nullptr);
  execv(words[0], words.data());
  Die(words[0]);
}

inline double Median(std::vector<double> *times) {
  const auto middle = times->begin() + static_cast<std::ptrdiff_t>(times->size() / 2);
  std::nth_element(times->begin(), middle, times->end());
  return *middle;
}
