// msg.cpp -- the pending messages of each thread.
//
// Idea:   a table has the list of each thread under the thread's id, so a thread finds its own
//         without a lock.  The threads' key of the host is there for one thing: to free the list
//         when the thread ends.
// Holds:  1. Only a thread itself touches its list, or puts a value under its id.
//         2. An entry is never removed from the table; a thread that has ended leaves null.  Ids
//            are given out again, so there are as many entries as there were threads at one time.

#include "lib/public/msg.h"

#include <pthread.h>

#include <atomic>
#include <bit>
#include <memory>
#include <new>
#include <utility>

#include "lib/public/errnoKeeper.h"
#include "lib/public/fatal.h"
#include "lib/public/hashTable.h"
#include "lib/public/heap.h"
#include "lib/public/mxUser.h"

namespace {

constexpr uint32_t kNumBuckets = 128;
constexpr MX_Rank kLockRank = 0xFEFFFFFF;

// What a thread has.
struct Pending {
  MsgList *messages = nullptr;
};

struct MsgState {
  HashTable *threads;    // thread id -> Pending, or null
  pthread_key_t ending;  // frees the Pending of a thread
};

struct MsgGlobals {
  std::atomic<MXUserRecLock *> lock = nullptr;
  std::atomic<const MsgState *> state = nullptr;
};

constinit MsgGlobals globals;

const void *ThisThread() {
  return HashTable_IntKey(std::bit_cast<uintptr_t>(pthread_self()));
}

void FreePending(void *value);

const MsgState *MakeState() {
  auto *const state = new (Heap_SafeMalloc(sizeof(MsgState))) MsgState{};
  state->threads = HashTable_Alloc(kNumBuckets, HASHTABLE_INT_KEY | HASHTABLE_ATOMIC, nullptr);
  // The host has run out of keys or of memory for one.
  if (pthread_key_create(&state->ending, FreePending) != 0) Fatal_MemAlloc();
  return state;
}

const MsgState &State() {
  const MsgState *state = globals.state.load(std::memory_order_acquire);
  if (state != nullptr) return *state;
  MXUserRecLock *const lock = MXUser_CreateSingletonRecLock(&globals.lock, "msgLock", kLockRank);
  MXUser_AcquireRecLock(lock);
  state = globals.state.load(std::memory_order_relaxed);
  if (state == nullptr) {
    state = MakeState();
    globals.state.store(state, std::memory_order_release);
  }
  MXUser_ReleaseRecLock(lock);
  return *state;
}

// Runs when the thread ends, on that thread.
void FreePending(void *value) {
  HashTable_ReplaceOrInsert(State().threads, ThisThread(), nullptr);
  const std::unique_ptr<Pending, HeapFreer> pending(static_cast<Pending *>(value));
  MsgList_Free(pending->messages);
}

// What this thread has; null when it has nothing.
Pending *FindPending() {
  void *pending = nullptr;
  HashTable_Lookup(State().threads, ThisThread(), &pending);
  return static_cast<Pending *>(pending);
}

Pending *MakePending() {
  const MsgState &state = State();
  auto *const pending = new (Heap_SafeMalloc(sizeof(Pending))) Pending;
  if (pthread_setspecific(state.ending, pending) != 0) Fatal_MemAlloc();
  HashTable_ReplaceOrInsert(state.threads, ThisThread(), pending);
  return pending;
}

// Where this thread's messages go.
MsgList **ListToAppend() {
  Pending *const found = FindPending();
  return found != nullptr ? &found->messages : &MakePending()->messages;
}

}  // namespace

void Msg_VAppend(const char *idFormat, va_list args) {
  const ErrnoKeeper keeper;
  MsgList_VAppend(ListToAppend(), idFormat, args);
}

void Msg_Append(const char *idFormat, ...) {
  va_list args;
  va_start(args, idFormat);
  Msg_VAppend(idFormat, args);
  va_end(args);
}

void Msg_AppendStr(const char *idText) {
  const ErrnoKeeper keeper;
  MsgList_AppendStr(ListToAppend(), idText);
}

void Msg_AppendMsgList(MsgList *messages) {
  const ErrnoKeeper keeper;
  MsgList_AppendMsgList(ListToAppend(), messages);
}

MsgList *Msg_TakePending() {
  const ErrnoKeeper keeper;
  Pending *const pending = FindPending();
  return pending != nullptr ? std::exchange(pending->messages, nullptr) : nullptr;
}

void Msg_LogPending() {
  const ErrnoKeeper keeper;
  const Pending *const pending = FindPending();
  if (pending != nullptr) MsgList_Log(pending->messages);
}

void Msg_Reset() {
  MsgList_Free(Msg_TakePending());
}
