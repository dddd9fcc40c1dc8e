// hashTable.h -- a chained hash table with string or integer keys and pointer-sized values.
//
// Keys are `const void *`: a NUL-terminated string, or an integer or pointer as it is
// (HashTable_IntKey).  Values are `void *` and may be null.  The number of buckets is fixed, so a
// table is as fast as it has buckets for its entries.  "Bucket order" is by bucket, and within one
// the latest insertion first.
//
// Ownership
//   keys     stay the caller's and must outlive their entries, unless the table was created with
//            HASHTABLE_COPY_KEY: then it keeps a copy of each string.
//   values   are handed to the table by a successful insertion or replacement.  A table with a free
//            function calls it once for each value that is dropped by replacing, deleting,
//            clearing or freeing; a value that was refused, or taken out by
//            HashTable_LookupAndDelete, is the caller's.
//
// Threads
//   "Concurrent" below: on a table created with HASHTABLE_ATOMIC, any number of threads may call
//   these procedures at the same time, without a lock, and none of them ever waits for another.
//   What a thread wrote before it handed over a key or value is visible to any thread that gets it
//   from the table.  A replaced value is freed at once, so where values are replaced and freed, the
//   program must settle by other means how long a reader may use a value that it looked up.
//   "Exclusive": the caller makes sure that no other thread uses the table meanwhile.
//   Without HASHTABLE_ATOMIC a table is used by one thread at a time.
//
// The table is not null unless told otherwise.  Exhausted memory is fatal, and so is, at its first
// use, a table of an unknown key type.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

struct HashTable;

// Called with a value that the table drops.  It must not use the table.
using HashTableFreeFn = void (*)(void *value);

// Called with an entry; a result other than zero ends the walk.
using HashTableForEachFn = int (*)(const void *key, void *value, void *clientData);

// Flags of HashTable_Alloc: one key type, or-ed with the rest.
enum : uint32_t {
  HASHTABLE_STRING_KEY = 0,   // strings, equal as for strcmp
  HASHTABLE_ISTRING_KEY = 1,  // strings, equal as for strcasecmp in a locale that stays
  HASHTABLE_INT_KEY = 2,      // integers or pointers
  HASHTABLE_KEY_TYPE_MASK = 7,
  HASHTABLE_ATOMIC = 0x8,     // see Threads
  HASHTABLE_COPY_KEY = 0x10,  // the table keeps copies of its string keys
};

// An integer as a key.
inline const void *HashTable_IntKey(uintptr_t key) {
  return reinterpret_cast<const void *>(key);
}

// ---- life of a table -------------------------------------------------------------------------

// A new, empty table that the caller frees with HashTable_Free.  numBuckets that is not a power of
// two is fatal; 0 and 1 both give a table with one chain.  freeFn may be null.
[[nodiscard]] HashTable *HashTable_Alloc(uint32_t numBuckets, uint32_t flags,
                                         HashTableFreeFn freeFn);

// The table in `slot` (not null), which is made when there is none.  Threads that ask for the same
// slot at the same time get the same table.
[[nodiscard]] HashTable *HashTable_AllocOnce(std::atomic<HashTable *> *slot, uint32_t numBuckets,
                                             uint32_t flags, HashTableFreeFn freeFn);

// Removes all entries and frees the table, if there is one: it may be null.  Exclusive.
void HashTable_Free(HashTable *table);

// Removes all entries.  Exclusive.
void HashTable_Clear(HashTable *table);

// ---- one entry: concurrent -------------------------------------------------------------------

// Whether the key is there; then *value, if value is not null, receives its value.
bool HashTable_Lookup(const HashTable *table, const void *key, void **value);

// Inserts the key with its value; false, and nothing changed, when the key is there already.
bool HashTable_Insert(HashTable *table, const void *key, void *value);

// The value of the key, which is inserted with `value` when it is not there.
void *HashTable_LookupOrInsert(HashTable *table, const void *key, void *value);

// Gives the key the value.  True when that replaced another value.  With a free function `value`
// must not be the one that is there.
bool HashTable_ReplaceOrInsert(HashTable *table, const void *key, void *value);

// Replaces the value of the key if it is oldValue; false, and nothing changed, when it is not or
// the key is not there.  With a free function the two values must differ.
bool HashTable_ReplaceIfEqual(HashTable *table, const void *key, void *oldValue, void *newValue);

// ---- one entry: exclusive --------------------------------------------------------------------

// Removes the key; false when it was not there.
bool HashTable_Delete(HashTable *table, const void *key);

// Removes the key and hands its value to the caller, in *value if value is not null; false, and
// *value left alone, when it was not there.
bool HashTable_LookupAndDelete(HashTable *table, const void *key, void **value);

// ---- all entries: concurrent -----------------------------------------------------------------
//
// While others insert, entries that are new may be met or not.

// The number of entries.  Only advisory once threads have inserted at the same time: it may be too
// small from then on, until the table is cleared.  The arrays below have all entries nevertheless.
[[nodiscard]] size_t HashTable_GetNumElements(const HashTable *table);

// A new array of all keys, or all values, in bucket order, which the caller frees with free(); the
// keys in it are still the table's.  Null for an empty table.  *count, not null, receives the
// number.
[[nodiscard]] const void **HashTable_KeyArray(const HashTable *table, size_t *count);
[[nodiscard]] void **HashTable_ValueArray(const HashTable *table, size_t *count);

// Calls callback(key, value, clientData) for every entry in bucket order, up to the first result
// other than zero, and returns that; otherwise 0.  The callback must not delete entries.
int HashTable_ForEach(const HashTable *table, HashTableForEachFn callback, void *clientData);

// ---- for a scope -----------------------------------------------------------------------------

struct HashTableFreer {
  void operator()(HashTable *table) const noexcept { HashTable_Free(table); }
};
using HashTableOwner = std::unique_ptr<HashTable, HashTableFreer>;
