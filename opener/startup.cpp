// startup.cpp -- the environment scrub, what is inherited besides, and the ownership check.
// Tests: tests/system/caller_test.cpp, staging_test.cpp

#include "opener/startup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "heap.h"

extern char **environ;

namespace {

// A value that begins so is a function which a shell defines when it starts.
constexpr std::string_view kFunctionMarker = "() {";

constexpr std::string_view kForbidden[] = {
    "BASH_ENV=",
    "ENV=",
    "SHELLOPTS=",
};

// `equals` is the position of the entry's first "=".
bool IsHarmful(std::string_view entry, size_t equals) {
  std::string_view value = entry;
  value.remove_prefix(equals + 1);
  if (value.starts_with(kFunctionMarker)) return true;
  for (const std::string_view prefix : kForbidden) {
    if (entry.starts_with(prefix)) return true;
  }
  return false;
}

bool RemoveVariable(std::string_view name) {
  const HeapStr copy(static_cast<char *>(malloc(name.size() + 1)));
  if (copy == nullptr) return false;
  memcpy(copy.get(), name.data(), name.size());
  copy.get()[name.size()] = '\0';
  return unsetenv(copy.get()) == 0;
}

}  // namespace

void ScrubEnvironment() {
  if (environ == nullptr) return;
  for (char **at = environ; *at != nullptr;) {
    const std::string_view entry = *at;
    const size_t equals = entry.find('=');
    if (equals == entry.npos || !IsHarmful(entry, equals)) {
      at++;
      continue;
    }
    if (!RemoveVariable(entry.substr(0, equals))) exit(EXIT_FAILURE);
    at = environ;  // unsetenv has moved the entries
  }
}

void FillStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
    // The lowest free number is the one that open takes.
    if (fcntl(fd, F_GETFD) == -1 && open("/dev/null", O_RDWR) != fd) exit(EXIT_FAILURE);
  }
}

void IgnoreWriteSignals() {
  struct sigaction action = {};
  action.sa_handler = SIG_IGN;
  for (const int number : {SIGPIPE, SIGXFSZ}) sigaction(number, &action, nullptr);
}

int CheckRootOwned(const char *path) {
  struct stat info;
  if (stat(path, &info) != 0) return -1;
  return info.st_uid == 0 && info.st_gid == 0 ? 0 : -1;
}
