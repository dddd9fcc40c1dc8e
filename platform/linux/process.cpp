// process.cpp -- the running program and its descriptors, on Linux.

#include "platform/process.h"

#include <unistd.h>

namespace {

// The lowest kept descriptor at or above `from`, or -1.  The list is a handful, so looking through
// it once for each entry beats sorting a copy, and needs no memory.
int NextKept(const int *keep, size_t count, int from) {
  int next = -1;
  for (size_t i = 0; i < count; i++) {
    if (keep[i] >= from && (next < 0 || keep[i] < next)) next = keep[i];
  }
  return next;
}

// Closes first..last.  close_range takes the same time whatever the descriptor limit; kernels
// before 5.9 and some sandboxes refuse it.
void CloseRange(unsigned first, unsigned last) {
  if (first > last || close_range(first, last, 0) == 0) return;
  const long limit = sysconf(_SC_OPEN_MAX);
  for (long fd = first; fd < limit && fd <= static_cast<long>(last); fd++)
    close(static_cast<int>(fd));
}

}  // namespace

bool Platform_ExecutablePath(char *buffer, size_t size) {
  const ssize_t length = readlink("/proc/self/exe", buffer, size);
  if (length <= 0 || static_cast<size_t>(length) >= size) return false;
  buffer[length] = '\0';
  return true;
}

void Platform_CloseDescriptorsExcept(const int *keep, size_t count) {
  int first = 3;
  for (int kept; (kept = NextKept(keep, count, first)) >= 0; first = kept + 1) {
    CloseRange(static_cast<unsigned>(first), static_cast<unsigned>(kept) - 1);
  }
  CloseRange(static_cast<unsigned>(first), ~0U);
}
