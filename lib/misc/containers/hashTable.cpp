// hashTable.cpp -- a chained hash table whose insertions can be lock-free.
//
// Idea:  a bucket is the head of a singly linked list, and insertion only ever prepends.  With
//        compare-and-swap on the head, that alone makes concurrent insertion safe: an insertion
//        that loses sees the winners' entries at the front of its next walk, so a key cannot get in
//        twice.
// Invariants:
//   1. `next` and `key` of an entry are fixed once the entry is in a chain; only deletion, which has
//      the table for itself, changes a `next`.
//   2. An entry in a chain is freed only by a caller that has the table for itself, too.  So a head
//      equal to the one read earlier stands for an unchanged chain (no ABA), and an entry that a
//      reader has found stays.
//   3. A head is published with release and read with acquire.  An insertion has acquired the head
//      that becomes its `next`; therefore one acquire of the newest head makes the whole chain
//      behind it visible.
//   4. A value is exchanged with acquire and release and read with acquire, so what it points to is
//      seen as its writer left it, also by the free function.
//   Tables without HASHTABLE_ATOMIC share this code; except for the compare-and-swap of the head,
//   the memory orders cost them nothing that matters.
//
// Tests: tests/unit/containers_test.cpp; bench/hashTable_bench.cpp measures it against the C++
// library's table

#include "lib/public/hashTable.h"

#include <strings.h>

#include <array>
#include <bit>
#include <cctype>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <type_traits>

#include "lib/misc/containers/keyHash.h"
#include "lib/public/fatal.h"
#include "lib/public/heap.h"
#include "lib/public/log.h"
#include "lib/public/onceSlot.h"

namespace {

// A copied key follows its entry in the same block.  The hash, before folding, spares comparing
// nearly all strings that differ.
struct Entry {
  Entry *next;
  const void *key;
  std::atomic<void *> value;
  uint32_t hash;
};
static_assert(std::is_trivially_destructible_v<Entry>);
static_assert(std::atomic<void *>::is_always_lock_free);

using EntryPtr = std::unique_ptr<Entry, HeapFreer>;
using Bucket = std::atomic<Entry *>;

}  // namespace

struct HashTable {
  uint32_t numBuckets;
  uint32_t numBits;  // the binary logarithm of numBuckets; all ones when that is 0
  uint32_t keyType;
  bool atomic;
  bool copyKey;
  HashTableFreeFn freeFn;
  std::unique_ptr<Bucket[], HeapFreer> heads;
  std::atomic<size_t> count;
  // tolower of each byte, for keys whose case is ignored: asking the host costs more than the rest of
  // a look-up, and a hash must not change with the locale.
  std::array<unsigned char, 256> lower;

  std::span<Bucket> Buckets() const { return {heads.get(), numBuckets == 0 ? 1 : numBuckets}; }
};

namespace {

// ---- keys -----------------------------------------------------------------------------------

// The bucket of a hash: its digits to the base numBuckets, combined by XOR.  Each step XORs the
// lower half of the digits that count with the upper half, and only the lowest digit is used at the
// end.  A loop over the digits would end after a number of rounds that no processor predicts.
Bucket &BucketOf(const HashTable &table, uint32_t hash) {
  if (table.numBuckets < 2) return table.heads[0];
  for (uint32_t shift = table.numBits; shift < 32; shift *= 2) hash ^= hash >> shift;
  return table.heads[hash & (table.numBuckets - 1)];
}

// A key to look for, with its hash, by type.

struct IntegerKey {
  const void *key;
  uint32_t hash;

  IntegerKey(const HashTable &, const void *wanted) : key(wanted), hash(HashInteger(wanted)) {}
  bool IsOf(const Entry &entry) const { return entry.key == key; }
};

struct StringKey {
  const char *key;
  uint32_t hash;

  StringKey(const HashTable &, const void *wanted)
      : key(static_cast<const char *>(wanted)), hash(HashString(key)) {}
  bool IsOf(const Entry &entry) const {
    return entry.hash == hash && strcmp(static_cast<const char *>(entry.key), key) == 0;
  }
};

struct StringKeyIgnoringCase {
  const char *key;
  uint32_t hash;

  StringKeyIgnoringCase(const HashTable &table, const void *wanted)
      : key(static_cast<const char *>(wanted)), hash(HashIgnoringCase(key, table.lower)) {}
  bool IsOf(const Entry &entry) const {
    return entry.hash == hash && strcasecmp(static_cast<const char *>(entry.key), key) == 0;
  }
};

// What use.operator()<Key>() returns for the type of the table's keys.
template <typename Use>
auto WithKeyType(const HashTable &table, Use use) {
  switch (table.keyType) {
    case HASHTABLE_INT_KEY:
      return use.template operator()<IntegerKey>();
    case HASHTABLE_STRING_KEY:
      return use.template operator()<StringKey>();
    case HASHTABLE_ISTRING_KEY:
      return use.template operator()<StringKeyIgnoringCase>();
    default:
      Fatal_NotReached("lib/misc/hashTable", 142);
  }
}

// ---- entries --------------------------------------------------------------------------------

template <typename Key>
Entry *FindInChain(Entry *head, const Key &wanted) {
  Entry *entry = head;
  while (entry != nullptr && !wanted.IsOf(*entry)) entry = entry->next;
  return entry;
}

template <typename Key>
Entry *Find(const HashTable &table, const Key &wanted) {
  return FindInChain(BucketOf(table, wanted.hash).load(std::memory_order_acquire), wanted);
}

void *ValueOf(const Entry *entry) {
  return entry->value.load(std::memory_order_acquire);
}

EntryPtr MakeEntry(const HashTable &table, const void *key, uint32_t hash, void *value) {
  const size_t copySize = table.copyKey ? strlen(static_cast<const char *>(key)) + 1 : 0;
  EntryPtr entry(new (Heap_SafeMalloc(sizeof(Entry) + copySize)) Entry{nullptr, key, value, hash});
  if (table.copyKey) entry->key = memcpy(static_cast<void *>(entry.get() + 1), key, copySize);
  return entry;
}

// Out of line, so that the short way of an integer does not save the registers of the others.
template <typename Key>
[[gnu::noinline, gnu::flatten]] bool Lookup(const HashTable &table, const void *key, void **value) {
  const Entry *const entry = Find(table, Key(table, key));
  if (entry == nullptr) return false;
  if (value != nullptr) *value = ValueOf(entry);
  return true;
}

// The count is advisory under concurrent insertion: of two increments at the same time one may get
// lost, which spares every insertion a locked instruction.  It never wraps below zero.
void CountOneMore(HashTable *table) {
  const size_t count = table->count.load(std::memory_order_relaxed);
  table->count.store(count + 1, std::memory_order_relaxed);
}

void CountOneLess(HashTable *table) {
  const size_t count = table->count.load(std::memory_order_relaxed);
  if (count > 0) table->count.store(count - 1, std::memory_order_relaxed);
}

// The entry that has the key already; null when the key went in with the value.
template <typename Key>
Entry *InsertUnlessThere(HashTable *table, const Key &wanted, void *value) {
  Bucket &bucket = BucketOf(*table, wanted.hash);
  EntryPtr fresh;
  for (bool inserted = false; !inserted;) {
    Entry *head = bucket.load(std::memory_order_acquire);
    Entry *const found = FindInChain(head, wanted);
    if (found != nullptr) return found;
    if (fresh == nullptr) fresh = MakeEntry(*table, wanted.key, wanted.hash, value);
    fresh->next = head;
    if (table->atomic) {
      inserted = bucket.compare_exchange_strong(head, fresh.get(), std::memory_order_release,
                                                std::memory_order_relaxed);
    } else {
      bucket.store(fresh.get(), std::memory_order_relaxed);
      inserted = true;
    }
  }
  // The chain owns it now.
  static_cast<void>(fresh.release());
  CountOneMore(table);
  return nullptr;
}

Entry *InsertUnlessThere(HashTable *table, const void *key, void *value) {
  return WithKeyType(
      *table, [=]<typename Key>() { return InsertUnlessThere(table, Key(*table, key), value); });
}

// Takes the key's entry out of its chain; null when there is none.  Exclusive.
EntryPtr Unlink(HashTable *table, const void *key) {
  Entry *const entry =
      WithKeyType(*table, [=]<typename Key>() { return Find(*table, Key(*table, key)); });
  if (entry == nullptr) return nullptr;
  Bucket &bucket = BucketOf(*table, entry->hash);
  Entry *before = bucket.load(std::memory_order_relaxed);
  if (before == entry) {
    bucket.store(entry->next, std::memory_order_relaxed);
  } else {
    while (before->next != entry) before = before->next;
    before->next = entry->next;
  }
  CountOneLess(table);
  return EntryPtr(entry);
}

void FreeValue(const HashTable &table, void *value) {
  if (table.freeFn != nullptr) table.freeFn(value);
}

// ---- all entries ----------------------------------------------------------------------------

// Calls visit(entry), which may free the entry, in bucket order up to the first result that is not
// 0.
template <typename Visit>
int VisitAll(const HashTable &table, Visit visit) {
  for (const Bucket &bucket : table.Buckets()) {
    Entry *next = nullptr;
    for (Entry *entry = bucket.load(std::memory_order_acquire); entry != nullptr; entry = next) {
      next = entry->next;
      const int result = visit(entry);
      if (result != 0) return result;
    }
  }
  return 0;
}

// A new array of what pick(entry) gives for every entry.  The entries are counted here, because the
// table's own count may be too small.
template <typename T, typename Pick>
T *Collect(const HashTable &table, size_t *count, Pick pick) {
  size_t room = 0;
  VisitAll(table, [&](Entry *) { return room++, 0; });
  *count = 0;
  if (room == 0) return nullptr;
  HeapArray<T> array = Heap_Array<T>(room);
  if (array == nullptr) Fatal_MemAlloc();
  VisitAll(table, [&](Entry *entry) {
    if (*count == room) return 1;  // others came in meanwhile
    array[(*count)++] = pick(entry);
    return 0;
  });
  return array.release();
}

}  // namespace

// ---- life of a table --------------------------------------------------------------------------

HashTable *HashTable_Alloc(uint32_t numBuckets, uint32_t flags, HashTableFreeFn freeFn) {
  if (numBuckets != 0 && !std::has_single_bit(numBuckets)) {
    Panic("%s only takes powers of 2 \n", "HashTable_Alloc");
  }
  HeapPtr<HashTable> table = Heap_New<HashTable>();
  table->numBuckets = numBuckets;
  table->numBits = static_cast<uint32_t>(std::bit_width(numBuckets)) - 1;
  table->keyType = flags & HASHTABLE_KEY_TYPE_MASK;
  table->atomic = (flags & HASHTABLE_ATOMIC) != 0;
  table->copyKey = (flags & HASHTABLE_COPY_KEY) != 0 && table->keyType != HASHTABLE_INT_KEY;
  table->freeFn = freeFn;
  for (size_t c = 0; table->keyType == HASHTABLE_ISTRING_KEY && c < table->lower.size(); c++) {
    table->lower[c] = static_cast<unsigned char>(tolower(static_cast<int>(c)));
  }
  const size_t numHeads = table->Buckets().size();
  table->heads.reset(static_cast<Bucket *>(Heap_SafeMalloc(numHeads * sizeof(Bucket))));
  std::uninitialized_value_construct_n(table->heads.get(), numHeads);
  return table.release();
}

HashTable *HashTable_AllocOnce(std::atomic<HashTable *> *slot, uint32_t numBuckets, uint32_t flags,
                               HashTableFreeFn freeFn) {
  HashTable *table = slot->load(std::memory_order_acquire);
  if (table != nullptr) return table;
  return OnceSlot_Install(slot, HashTableOwner(HashTable_Alloc(numBuckets, flags, freeFn)));
}

void HashTable_Free(HashTable *table) {
  if (table == nullptr) return;
  HashTable_Clear(table);
  HeapPtr<HashTable>(table).reset();
}

void HashTable_Clear(HashTable *table) {
  VisitAll(*table, [table](Entry *entry) {
    FreeValue(*table, ValueOf(entry));
    EntryPtr(entry).reset();
    return 0;
  });
  for (Bucket &bucket : table->Buckets()) bucket.store(nullptr, std::memory_order_relaxed);
  table->count.store(0, std::memory_order_relaxed);
}

// ---- one entry --------------------------------------------------------------------------------

bool HashTable_Lookup(const HashTable *table, const void *key, void **value) {
  return WithKeyType(*table, [=]<typename Key>() { return Lookup<Key>(*table, key, value); });
}

bool HashTable_Insert(HashTable *table, const void *key, void *value) {
  return InsertUnlessThere(table, key, value) == nullptr;
}

void *HashTable_LookupOrInsert(HashTable *table, const void *key, void *value) {
  const Entry *const entry = InsertUnlessThere(table, key, value);
  return entry == nullptr ? value : ValueOf(entry);
}

bool HashTable_ReplaceOrInsert(HashTable *table, const void *key, void *value) {
  Entry *const entry = InsertUnlessThere(table, key, value);
  if (entry == nullptr) return false;
  FreeValue(*table, entry->value.exchange(value, std::memory_order_acq_rel));
  return true;
}

bool HashTable_ReplaceIfEqual(HashTable *table, const void *key, void *oldValue, void *newValue) {
  Entry *const entry =
      WithKeyType(*table, [=]<typename Key>() { return Find(*table, Key(*table, key)); });
  void *expected = oldValue;
  if (entry == nullptr ||
      !entry->value.compare_exchange_strong(expected, newValue, std::memory_order_acq_rel,
                                            std::memory_order_relaxed)) {
    return false;
  }
  FreeValue(*table, oldValue);
  return true;
}

bool HashTable_Delete(HashTable *table, const void *key) {
  const EntryPtr entry = Unlink(table, key);
  if (entry == nullptr) return false;
  FreeValue(*table, ValueOf(entry.get()));
  return true;
}

bool HashTable_LookupAndDelete(HashTable *table, const void *key, void **value) {
  const EntryPtr entry = Unlink(table, key);
  if (entry == nullptr) return false;
  if (value != nullptr) *value = ValueOf(entry.get());
  return true;
}

// ---- all entries ------------------------------------------------------------------------------

size_t HashTable_GetNumElements(const HashTable *table) {
  return table->count.load(std::memory_order_relaxed);
}

const void **HashTable_KeyArray(const HashTable *table, size_t *count) {
  return Collect<const void *>(*table, count, [](const Entry *entry) { return entry->key; });
}

void **HashTable_ValueArray(const HashTable *table, size_t *count) {
  return Collect<void *>(*table, count, ValueOf);
}

int HashTable_ForEach(const HashTable *table, HashTableForEachFn callback, void *clientData) {
  return VisitAll(
      *table, [=](const Entry *entry) { return callback(entry->key, ValueOf(entry), clientData); });
}
