// msg.cpp -- the pending messages of each thread.
//
// Idea:       the value of a pthread key is the thread's list.  So a thread finds its own without a
//             lock, nobody else can get at it, and the host frees it when the thread ends; also
//             after fork(2), and where the host gives the id of an ended thread to a new one.
// Invariants: "msgLock" is held only to create the key, which happens once.
// Tests:      tests/unit/messages_test.cpp

#include "lib/public/msg.h"

#include <pthread.h>

#include <atomic>

#include "lib/public/errnoKeeper.h"
#include "lib/public/fatal.h"
#include "lib/public/mxUser.h"

namespace {

constexpr MX_Rank kLockRank = 0xFEFFFFFF;

struct MsgState {
  std::atomic<MXUserRecLock *> lock = nullptr;
  std::atomic<bool> hasKey = false;
  pthread_key_t key = {};
};

constinit MsgState state;

// Runs on a thread that is about to end.
void FreeList(void *list) {
  MsgList_Free(static_cast<MsgList *>(list));
}

void CreateKeyOnce() {
  const ErrnoKeeper keeper;
  MXUserRecLock *const lock = MXUser_CreateSingletonRecLock(&state.lock, "msgLock", kLockRank);
  MXUser_AcquireRecLock(lock);
  if (!state.hasKey.load(std::memory_order_relaxed)) {
    // Fails when the host has run out of keys, or of memory for one.
    if (pthread_key_create(&state.key, FreeList) != 0) Fatal_MemAlloc();
    state.hasKey.store(true, std::memory_order_release);
  }
  MXUser_ReleaseRecLock(lock);
}

pthread_key_t Key() {
  if (!state.hasKey.load(std::memory_order_acquire)) CreateKeyOnce();
  return state.key;
}

MsgList *Pending() {
  return static_cast<MsgList *>(pthread_getspecific(Key()));
}

void SetPending(MsgList *list) {
  if (pthread_setspecific(Key(), list) != 0) Fatal_MemAlloc();
}

}  // namespace

void Msg_VAppend(const char *idFormat, va_list args) {
  MsgList *list = Pending();
  MsgList_VAppend(&list, idFormat, args);
  SetPending(list);
}

void Msg_Append(const char *idFormat, ...) {
  va_list args;
  va_start(args, idFormat);
  Msg_VAppend(idFormat, args);
  va_end(args);
}

void Msg_AppendStr(const char *idText) {
  MsgList *list = Pending();
  MsgList_AppendStr(&list, idText);
  SetPending(list);
}

void Msg_AppendMsgList(MsgList *messages) {
  MsgList *list = Pending();
  MsgList_AppendMsgList(&list, messages);
  SetPending(list);
}

MsgList *Msg_TakePending() {
  MsgList *const list = Pending();
  SetPending(nullptr);
  return list;
}

void Msg_LogPending() {
  const ErrnoKeeper keeper;
  MsgList_Log(Pending());
}

void Msg_Reset() {
  MsgList_Free(Msg_TakePending());
}
