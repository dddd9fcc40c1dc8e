// startup.cpp -- the environment scrub, what is inherited besides, and the ownership check.
// Tests: tests/unit/opener_test.cpp, tests/system/caller_test.cpp, staging_test.cpp

#include "opener/startup.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <utility>

extern char **environ;

namespace {

// A value that begins so is a function which a shell defines when it starts.
constexpr std::string_view kFunctionMarker = "() {";

constexpr std::string_view kForbidden[] = {
    "BASH_ENV=",
    "ENV=",
    "SHELLOPTS=",
};

// All of an entry without "=", which is no variable.
std::string_view NameOf(std::string_view entry) {
  return {entry.data(), std::min(entry.find('='), entry.size())};
}

bool IsVariable(std::string_view entry) {
  return entry.find('=') != entry.npos;
}

bool IsHarmful(std::string_view entry) {
  if (!IsVariable(entry)) return false;
  std::string_view value = entry;
  value.remove_prefix(NameOf(entry).size() + 1);
  return value.starts_with(kFunctionMarker) ||
         std::ranges::any_of(kForbidden, [=](auto prefix) { return entry.starts_with(prefix); });
}

// Moves the harmless entries to the front, in their order, and returns the first of the others.
char **MoveHarmlessToFront(char **first, char **end) {
  char **harmless = first;
  for (char **at = first; at != end; at++) {
    if (!IsHarmful(*at)) std::swap(*harmless++, *at);
  }
  return harmless;
}

}  // namespace

// The effect is that of unsetenv(3) for the name of each harmful entry, which removes every entry of
// that name.  But unsetenv walks through all of them each time, and the caller decides how many there
// are.
void ScrubEnvironment() {
  if (environ == nullptr) return;
  char **end = environ;
  while (*end != nullptr) end++;
  char **const harmful = MoveHarmlessToFront(environ, end);
  std::ranges::sort(harmful, end, {}, NameOf);
  // The empty name, which unsetenv refuses, comes first.
  if (harmful != end && NameOf(*harmful).empty()) exit(EXIT_FAILURE);

  char **const kept = std::remove_if(environ, harmful, [=](const char *entry) {
    return IsVariable(entry) && std::ranges::binary_search(harmful, end, NameOf(entry), {}, NameOf);
  });
  *kept = nullptr;
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
