// err.cpp -- what errno values mean.
//
// Two tables with the same entries, one by value and one by the address of the text.  They are never
// freed, because a thread may still use a text while others run exit handlers.
//
// Tests: tests/unit/messages_test.cpp

#include "lib/public/err.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "lib/public/errnoKeeper.h"
#include "lib/public/hashTable.h"
#include "lib/public/heap.h"
#include "lib/public/utf8.h"
#include "platform/errorText.h"

namespace {

constexpr uint32_t kNumBuckets = 2048;
constexpr size_t kTextSize = 2048;

struct ErrInfo {
  int number;
  HeapStr text;
};

void FreeInfo(void *info) {
  HeapPtr<ErrInfo>(static_cast<ErrInfo *>(info)).reset();
}

struct ErrState {
  std::atomic<HashTable *> byNumber = nullptr;  // owns the entries
  std::atomic<HashTable *> byText = nullptr;
};

constinit ErrState state;

// The length of `text` without a last character of which bytes are missing.
size_t WholeCharacters(const char *text) {
  const size_t length = strlen(text);
  const Utf8Tail tail = Utf8_Tail(text, length);
  return tail.missing > 0 ? tail.start : length;
}

HeapPtr<ErrInfo> MakeInfo(int number) {
  std::array<char, kTextSize> buffer;
  const char *const text = Platform_ErrorText(number, buffer);
  return Heap_New<ErrInfo>(number, Heap_SafeStrndup(text, WholeCharacters(text)));
}

const void *NumberKey(int number) {
  return HashTable_IntKey(static_cast<unsigned>(number));
}

const ErrInfo *FindOrMake(int number) {
  HashTable *const table = HashTable_AllocOnce(&state.byNumber, kNumBuckets,
                                               HASHTABLE_INT_KEY | HASHTABLE_ATOMIC, FreeInfo);
  void *found = nullptr;
  if (HashTable_Lookup(table, NumberKey(number), &found)) return static_cast<ErrInfo *>(found);
  HeapPtr<ErrInfo> fresh = MakeInfo(number);
  // Another thread may have been faster: then its entry counts.
  found = HashTable_LookupOrInsert(table, NumberKey(number), fresh.get());
  if (found == fresh.get()) static_cast<void>(fresh.release());
  return static_cast<ErrInfo *>(found);
}

}  // namespace

const char *Err_ErrnoToString(int errnoValue) {
  const ErrnoKeeper keeper;
  const ErrInfo *const info = FindOrMake(errnoValue);
  const char *const text = info->text.get();
  HashTable *const byText = HashTable_AllocOnce(&state.byText, kNumBuckets,
                                                HASHTABLE_INT_KEY | HASHTABLE_ATOMIC, nullptr);
  HashTable_Insert(byText, text, const_cast<ErrInfo *>(info));
  return text;
}

const char *Err_ErrString() {
  return Err_ErrnoToString(errno);
}

int Err_StringToErrno(const char *text) {
  const HashTable *const byText = state.byText.load(std::memory_order_acquire);
  void *info = nullptr;
  if (byText == nullptr || !HashTable_Lookup(byText, text, &info)) return -1;
  return static_cast<const ErrInfo *>(info)->number;
}
