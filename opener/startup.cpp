// startup.cpp -- the environment, descriptors and signals that were inherited, and the ownership check.
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

// A shell defines a function from a value that begins with this when it starts.
constexpr std::string_view kFunctionMarker = "() {";

constexpr std::string_view kForbidden[] = {
    "BASH_ENV=",
    "ENV=",
    "SHELLOPTS=",
};

// An entry without "=" is no variable, and counts as all name.
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

// Has the effect of unsetenv(3) for the name of each harmful entry, which removes every entry of that
// name.  But unsetenv walks the whole environment each time, whose size the caller chooses.
void ScrubEnvironment() {
  if (environ == nullptr) return;
  char **end = environ;
  while (*end != nullptr) end++;
  char **const harmful = MoveHarmlessToFront(environ, end);
  std::ranges::sort(harmful, end, {}, NameOf);
  // An empty name sorts first; unsetenv refuses it.
  if (harmful != end && NameOf(*harmful).empty()) exit(EXIT_FAILURE);

  char **const kept = std::remove_if(environ, harmful, [=](const char *entry) {
    return IsVariable(entry) && std::ranges::binary_search(harmful, end, NameOf(entry), {}, NameOf);
  });
  *kept = nullptr;
}

void FillStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
    // open(2) returns the lowest free number.
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
