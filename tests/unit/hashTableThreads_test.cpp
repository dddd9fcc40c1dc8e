// hashTableThreads_test.cpp -- many threads in one atomic table; ThreadSanitizer sees the data races.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "hashTable.h"
#include "heap.h"

namespace {

constexpr size_t kThreads = 8;

// Runs body(thread number) in all threads at once.
template <typename Body>
void InThreads(Body body) {
  std::latch start(kThreads);
  std::vector<std::jthread> threads;
  for (size_t i = 0; i < kThreads; i++) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      body(i);
    });
  }
}

struct Value {
  size_t key = 0;  // plain: written before the hand-over, read by whoever looks the value up
  bool kept = false;
  std::atomic<int> freed = 0;
};
using Values = std::array<std::vector<Value>, kThreads>;

void CountFree(void *value) {
  static_cast<Value *>(value)->freed++;
}

// Clears the table: every value that it took has been freed once, the others never.
void ExpectFreedOnce(HashTable *table, const Values &values) {
  HashTable_Clear(table);
  for (const auto &mine : values) {
    for (const Value &value : mine) EXPECT_EQ(value.kept ? 0 : 1, value.freed);
  }
}

TEST(HashTableThreads, EveryKeyGoesInOnceAndItsFirstValueWins) {
  constexpr size_t kKeys = 500;
  const HashTableOwner table(
      HashTable_Alloc(128, HASHTABLE_ATOMIC | HASHTABLE_COPY_KEY, CountFree));
  Values values;
  for (auto &mine : values) mine = std::vector<Value>(kKeys);
  std::array<std::vector<void *>, kThreads> seen;
  seen.fill(std::vector<void *>(kKeys));
  InThreads([&](size_t me) {
    for (size_t i = 0; i < kKeys; i++) {
      const size_t key = me % 4 < 2 ? i : kKeys - 1 - i;
      Value &mine = values[me][key];
      mine.key = key;
      const std::string name = "key number " + std::to_string(key);  // gone after the insertion
      if (me % 2 == 0) {
        mine.kept = !HashTable_Insert(table.get(), name.c_str(), &mine);
        EXPECT_TRUE(HashTable_Lookup(table.get(), name.c_str(), &seen[me][key]));
      } else {
        seen[me][key] = HashTable_LookupOrInsert(table.get(), name.c_str(), &mine);
        mine.kept = seen[me][key] != &mine;
      }
      EXPECT_EQ(key, static_cast<Value *>(seen[me][key])->key);
    }
  });
  for (const auto &other : seen) EXPECT_EQ(seen[0], other);
  // The array is complete, whatever the advisory count has missed.
  size_t count = 0;
  const HeapArray<void *> all(HashTable_ValueArray(table.get(), &count));
  EXPECT_TRUE(std::is_permutation(seen[0].begin(), seen[0].end(), all.get(), all.get() + count));
  ExpectFreedOnce(table.get(), values);
}

TEST(HashTableThreads, EveryReplacedValueIsFreedOnce) {
  constexpr size_t kRounds = 2000;
  const HashTableOwner table(HashTable_Alloc(2, HASHTABLE_INT_KEY | HASHTABLE_ATOMIC, CountFree));
  Values values;
  for (auto &mine : values) mine = std::vector<Value>(kRounds);
  InThreads([&](size_t me) {
    for (size_t i = 0; i < kRounds; i++) {
      const void *const key = HashTable_IntKey(i % 3);
      Value &mine = values[me][i];
      mine.key = i % 3;
      void *old = nullptr;
      if (me % 2 == 0 || !HashTable_Lookup(table.get(), key, &old)) {
        HashTable_ReplaceOrInsert(table.get(), key, &mine);
      } else {
        EXPECT_EQ(i % 3, static_cast<Value *>(old)->key);
        mine.kept = !HashTable_ReplaceIfEqual(table.get(), key, old, &mine);
      }
    }
  });
  ExpectFreedOnce(table.get(), values);
}

TEST(HashTableThreads, AllThreadsGetTheOneTableOfASlot) {
  for (int round = 0; round < 100; round++) {
    std::atomic<HashTable *> slot = nullptr;
    std::array<HashTable *, kThreads> got = {};
    InThreads([&](size_t me) {
      // Many buckets keep the threads at it while the others come.
      got[me] = HashTable_AllocOnce(&slot, 8192, HASHTABLE_INT_KEY | HASHTABLE_ATOMIC, nullptr);
    });
    const HashTableOwner table(slot);
    for (const HashTable *one : got) EXPECT_EQ(table.get(), one);
  }
}

}  // namespace
