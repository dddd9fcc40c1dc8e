#include "tests/support/scratchDir.h"

#include <sys/mman.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

ScratchDir::ScratchDir() {
  std::string name = std::filesystem::temp_directory_path() / "lumen-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) abort();
  path_ = std::filesystem::canonical(name);
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string ScratchDir::Path(const std::string &name) const {
  return name.empty() ? path_ : path_ / name;
}

std::string ScratchDir::Write(const std::string &name, const std::string &content) const {
  std::ofstream(Path(name)) << content;
  return Path(name);
}

Fd FileWith(const std::string &content) {
  Fd file(memfd_create("content", MFD_CLOEXEC));
  // Nothing to write is no call, which a test might have asked to fail.
  if (!content.empty() && pwrite(file.Get(), content.data(), content.size(), 0) < 0) abort();
  return file;
}

std::string ContentOf(const Fd &fd) {
  return ReadFile("/proc/self/fd/" + std::to_string(fd.Get()));
}

std::string ReadFile(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}
