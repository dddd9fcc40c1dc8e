// unicodeInit.cpp -- initialises the code sets, once for the process.
// Tests: tests/unit/codeset_test.cpp

#include <atomic>
#include <ctime>

#include "lib/public/codeset.h"
#include "lib/public/log.h"
#include "lib/public/unicode.h"

namespace {

struct {
  std::atomic<unsigned> lock = 0;
  bool done = false;  // under the lock
} state;

void Lock() {
  // The lock is held for long only once, by a thread that accesses the disk, so waiting by sleeping
  // is cheap enough.
  constexpr timespec kPause = {.tv_sec = 0, .tv_nsec = 250'000'000};
  for (unsigned unlocked = 0;
       !state.lock.compare_exchange_strong(unlocked, 1, std::memory_order_acquire); unlocked = 0) {
    nanosleep(&kPause, nullptr);
  }
}

void Unlock() {
  state.lock.store(0, std::memory_order_release);
}

}  // namespace

void Unicode_Init(const char *icuDataDir) {
  Lock();
  if (!state.done) {
    if (!CodeSet_Init(icuDataDir)) Panic("%s", "Failed to initialize codeset.\n");
    state.done = true;
  }
  Unlock();
}
