// mxUserHeader.cpp -- the beginning of every lock: name, signature, serial number, place on the list of
// all locks.
//
// Tests: tests/unit/lock_test.cpp

#include <ctime>

#include "lib/lock/mxUserInt.h"
#include "lib/lock/mxUserStats.h"
#include "lib/public/log.h"
#include "lib/public/str.h"

namespace {

struct HeaderState {
  std::atomic<uint32_t> salt = 0;  // of signatures; 0: not chosen yet
  std::atomic<uint64_t> nextSerialNumber = 1;
  std::atomic<MXUserNativeLock *> listLock = nullptr;
  MXUserHeader *head = nullptr;  // of a ring; under the list lock
};

constinit HeaderState state;

struct NativeLockDeleter {
  void operator()(MXUserNativeLock *lock) const noexcept {
    lock->Destroy();
    HeapDeleter()(lock);
  }
};

// Null when the native lock could not be created.
MXUserNativeLock *GetListLock() {
  MXUserNativeLock *const lock = state.listLock.load(std::memory_order_acquire);
  if (lock != nullptr) return lock;
  HeapPtr<MXUserNativeLock> fresh = Heap_New<MXUserNativeLock>();
  if (fresh->Init() != 0) return nullptr;
  return OnceSlot_Install(&state.listLock,
                          std::unique_ptr<MXUserNativeLock, NativeLockDeleter>(fresh.release()));
}

uint32_t Salt() {
  uint32_t salt = state.salt.load(std::memory_order_relaxed);
  if (salt != 0) return salt;
  const auto now = static_cast<uint32_t>(time(nullptr));
  const uint32_t mine = now == 0 ? 1 : now;
  return state.salt.compare_exchange_strong(salt, mine, std::memory_order_relaxed) ? mine : salt;
}

HeapStr NameOf(const MXUserLockKind &kind, const char *name, const void *creator) {
  if (name != nullptr) return Heap_SafeStrdup(name);
  return HeapStr(Str_SafeAsprintf(nullptr, kind.nameFormat, creator));
}

}  // namespace

uint32_t MXUserSignature(MXUserType type) {
  return static_cast<uint32_t>(type) << 28 | (Salt() & 0x0FFFFFFF);
}

uint64_t MXUserAllocSerialNumber() {
  const uint64_t serialNumber = state.nextSerialNumber.fetch_add(1, std::memory_order_relaxed);
  if (serialNumber == 0) Panic("%s: too many locks!\n", __func__);
  return serialNumber;
}

// ---- creation --------------------------------------------------------------------------------

void MXUserInitHeader(MXUserHeader *header, const MXUserLockKind &kind, HeapStr name,
                      MX_Rank rank) {
  header->name = std::move(name);
  header->signature.Set(MXUserSignature(kind.type));
  header->rank = rank;
  header->dump = kind.dump;
}

void MXUserInitLock(MXUserLock *lock, const MXUserLockKind &kind, const char *name, MX_Rank rank,
                    const void *creator) {
  if (lock->native.Init() != 0) {
    Panic("%s: native lock initialization routine failed\n", kind.createName);
  }
  MXUserInitHeader(lock, kind, NameOf(kind, name, creator), rank);
  MXUserInitStats(lock, kind);
  MXUserAddToList(lock);
}

// ---- the list --------------------------------------------------------------------------------

MXUserListHolder::MXUserListHolder(Mode mode) : lock_(GetListLock()) {
  if (lock_ == nullptr) return;
  const int error = mode == Mode::wait ? lock_->Acquire() : lock_->TryAcquire();
  if (error == 0) return;
  if (mode == Mode::wait) Panic("%s: failure %d on the list lock\n", "MXUserListHolder", error);
  lock_ = nullptr;
}

void MXUserForEachLock(void (*visit)(MXUserHeader *header)) {
  MXUserHeader *header = state.head;
  if (header == nullptr) return;
  do {
    MXUserHeader *const next = header->next;
    visit(header);
    header = next;
  } while (header != state.head);
}

// The number is drawn under the list lock, so that locks come onto the list in the order of their
// numbers: the statistics pass remembers only the highest number that it has announced.
void MXUserAddToList(MXUserHeader *header) {
  const MXUserListHolder list(MXUserListHolder::Mode::wait);
  header->serialNumber = MXUserAllocSerialNumber();
  if (!list) return;
  MXUserHeader *const head = state.head;
  if (head == nullptr) {
    header->next = header->prev = state.head = header;
    return;
  }
  header->prev = head;
  header->next = head->next;
  head->next->prev = header;
  head->next = header;
}

void MXUserRemoveFromList(MXUserHeader *header) {
  const MXUserListHolder list(MXUserListHolder::Mode::wait);
  if (!list || header->next == nullptr) return;
  if (header->next == header) {
    state.head = nullptr;
  } else {
    header->next->prev = header->prev;
    header->prev->next = header->next;
    if (state.head == header) state.head = header->prev;
  }
  header->next = header->prev = nullptr;
}
