// scratchDir.cpp -- see scratchDir.h.

#include "tests/support/scratchDir.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

ScratchDir::ScratchDir() {
  std::string name = fs::temp_directory_path() / "lumen-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) abort();
  path_ = fs::canonical(name);
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string ScratchDir::Path(const std::string &name) const {
  return name.empty() ? path_ : path_ / name;
}

std::string ScratchDir::Write(const std::string &name, const std::string &content) const {
  std::ofstream(Path(name)) << content;
  return Path(name);
}

std::string ReadFile(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}
