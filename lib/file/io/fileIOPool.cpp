// fileIOPool.cpp -- page-aligned buffers that are used again.
//
// Idea:       a few sizes, each with a short stack of idle buffers.  A request takes the most
//             recently used buffer of the smallest size that fits, the one most likely to be in the
//             processor's cache; a buffer returned to a full stack is freed.  So the pool never keeps
//             more than kDepth buffers of each size, 5.25 MiB in all.  Larger requests are rare and
//             are not pooled.
// Invariants: the lock guards the stacks only; memory is allocated and freed outside it.
// Tests: tests/unit/fileIO_test.cpp

#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>

#include "lib/file/io/fileIOFaceInt.h"
#include "lib/public/errnoKeeper.h"
#include "lib/public/fatal.h"
#include "lib/public/mxUser.h"

namespace {

constexpr MX_Rank kRank = 0xFF000000;
constexpr size_t kDepth = 4;

struct Stack {
  size_t size;  // of each buffer
  size_t count = 0;
  std::array<char *, kDepth> idle = {};
};

struct Pool {
  std::atomic<MXUserExclLock *> lock = nullptr;
  std::array<Stack, 3> stacks = {Stack{64 << 10}, Stack{256 << 10}, Stack{1 << 20}};

  MXUserExclLock *Lock() { return MXUser_CreateSingletonExclLock(&lock, "alignedPoolLock", kRank); }

  // The stack of the smallest size that holds `size` bytes; null if there is none.
  Stack *StackFor(size_t size) {
    for (Stack &stack : stacks) {
      if (size <= stack.size) return &stack;
    }
    return nullptr;
  }
};

constinit Pool pool;

class PoolLocked {
  MXUserExclLock *const lock_ = pool.Lock();

 public:
  PoolLocked() { MXUser_AcquireExclLock(lock_); }
  PoolLocked(const PoolLocked &) = delete;
  PoolLocked &operator=(const PoolLocked &) = delete;
  ~PoolLocked() { MXUser_ReleaseExclLock(lock_); }
};

// Null when all are in use.
char *TakeIdle(Stack *stack) {
  const PoolLocked locked;
  return stack->count == 0 ? nullptr : stack->idle[--stack->count];
}

// Whether there was room.
bool PutIdle(Stack *stack, char *buffer) {
  const PoolLocked locked;
  if (stack->count == kDepth) return false;
  stack->idle[stack->count++] = buffer;
  return true;
}

char *NewBuffer(size_t size) {
  void *buffer = nullptr;
  if (posix_memalign(&buffer, static_cast<size_t>(sysconf(_SC_PAGESIZE)), size) != 0) {
    Fatal_MemAlloc();
  }
  return static_cast<char *>(buffer);
}

}  // namespace

void FileIOAlignedPrepare() {
  pool.Lock();
}

FileIOAlignedBuffer FileIOAlignedAlloc(size_t size) {
  Stack *const stack = pool.StackFor(size);
  char *buffer = stack == nullptr ? nullptr : TakeIdle(stack);
  if (buffer == nullptr) buffer = NewBuffer(stack == nullptr ? size : stack->size);
  return FileIOAlignedBuffer(buffer, FileIOAlignedFreer{size});
}

void FileIOAlignedFreer::operator()(char *buffer) const noexcept {
  const ErrnoKeeper keeper;
  Stack *const stack = pool.StackFor(size);
  if (stack == nullptr || !PutIdle(stack, buffer)) free(buffer);
}
